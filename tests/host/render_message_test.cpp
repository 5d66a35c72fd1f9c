// The host's render message log through the interface's slots.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "quorv/rendermessage.h"

namespace quorv {
namespace {

struct Seen {
    std::vector<std::pair<Int, std::string>> lines;
};

void Collect(void* user, Int sequence, MESSAGESEVERITY severity, const char* text) {
    static_cast<Seen*>(user)->lines.emplace_back(
        sequence, std::to_string(static_cast<int>(severity)) + ":" + text);
}

struct Log {
    RenderMessageLog* log = RenderMessageInterface::Alloc(QUORV_SOURCE_LOCATION);
    ~Log() { RenderMessageInterface::Free(log); }
};

TEST(RenderMessages, CapacityDropsTheOldestAndSequencesCountOn) {
    Log l;
    ASSERT_NE(l.log, nullptr);
    ASSERT_TRUE(RenderMessageInterface::Init(l.log, 3).IsOk());
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(RenderMessageInterface::AddMessage(l.log, MESSAGESEVERITY::WARNING,
                                                       ("m" + std::to_string(i)).c_str())
                        .IsOk());
    Seen all;
    EXPECT_EQ(RenderMessageInterface::QueryMessages(l.log, 0, &Collect, &all), 5);
    ASSERT_EQ(all.lines.size(), 3u);
    EXPECT_EQ(all.lines[0], (std::pair<Int, std::string>{2, "1:m2"}));
    EXPECT_EQ(all.lines[2], (std::pair<Int, std::string>{4, "1:m4"}));
    // Only what came after a given sequence number.
    Seen later;
    ASSERT_TRUE(RenderMessageInterface::AddMessage(l.log, MESSAGESEVERITY::ERROR, "late").IsOk());
    EXPECT_EQ(RenderMessageInterface::QueryMessages(l.log, 5, &Collect, &later), 6);
    ASSERT_EQ(later.lines.size(), 1u);
    EXPECT_EQ(later.lines[0].second, "2:late");
    RenderMessageInterface::Reset(l.log);
    EXPECT_EQ(RenderMessageInterface::QueryMessages(l.log, 0, nullptr, nullptr), 0);
}

TEST(RenderMessages, BadArgumentsAreErrorsNotCrashes) {
    EXPECT_TRUE(RenderMessageInterface::AddMessage(nullptr, MESSAGESEVERITY::INFO, "x").IsError());
    Log l;
    EXPECT_TRUE(
        RenderMessageInterface::AddMessage(l.log, MESSAGESEVERITY::INFO, nullptr).IsError());
    EXPECT_TRUE(RenderMessageInterface::Init(l.log, -1).IsError());
    EXPECT_EQ(RenderMessageInterface::QueryMessages(nullptr, 0, &Collect, nullptr), 0);
}

// Writers on several threads and a reader beside them: every message is seen once, in the
// order of its sequence number.
TEST(RenderMessages, ManyWritersAndAReader) {
    Log l;
    ASSERT_TRUE(RenderMessageInterface::Init(l.log, 0).IsOk());
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([&, t] {
            for (int i = 0; i < 250; ++i)
                (void)RenderMessageInterface::AddMessage(l.log, MESSAGESEVERITY::INFO,
                                                         ("t" + std::to_string(t)).c_str());
        });
    }
    Seen seen;
    Int next = 0;
    while (next < 1000) next = RenderMessageInterface::QueryMessages(l.log, next, &Collect, &seen);
    for (auto& w : writers) w.join();
    ASSERT_EQ(seen.lines.size(), 1000u);
    for (size_t i = 0; i < seen.lines.size(); ++i) EXPECT_EQ(seen.lines[i].first, Int(i));
}

}  // namespace
}  // namespace quorv
