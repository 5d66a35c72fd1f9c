// The host's render message log: a ring of copied texts under a mutex, numbered so that a
// reader can ask for what came after its last read.
#include <deque>
#include <mutex>
#include <new>
#include <string>

#include "quorv/host/host.h"
#include "quorv/rendermessage.h"

namespace quorv {

struct RenderMessageLog {
    mutable std::mutex mutex;
    std::deque<std::pair<MESSAGESEVERITY, std::string>> messages;
    Int firstSequence = 0;  ///< sequence number of messages.front()
    Int capacity = 0;
};

namespace host {
namespace {

Error NullLog() { return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No message log"); }

void Free(RenderMessageLog* log) { delete log; }

RenderMessageLog* Alloc(const SourceLocation&) { return new (std::nothrow) RenderMessageLog(); }

Result<void> Init(RenderMessageLog* log, Int capacity) {
    if (!log) return NullLog();
    if (capacity < 0)
        return MakeError(
            ERRORKIND::ILLEGALARGUMENT, QUORV_SOURCE_LOCATION,
            FormatMessage("Message capacity @ is negative", {std::to_string(capacity)}));
    std::lock_guard<std::mutex> lock(log->mutex);
    log->messages.clear();
    log->firstSequence = 0;
    log->capacity = capacity;
    return OK;
}

void Reset(RenderMessageLog* log) {
    if (!log) return;
    std::lock_guard<std::mutex> lock(log->mutex);
    log->messages.clear();
    log->firstSequence = 0;
}

Result<void> AddMessage(RenderMessageLog* log, MESSAGESEVERITY severity, const char* text) {
    if (!log) return NullLog();
    if (!text) return MakeError(ERRORKIND::NULLPTR, QUORV_SOURCE_LOCATION, "No message text");
    try {
        std::string copy(text);
        std::lock_guard<std::mutex> lock(log->mutex);
        log->messages.emplace_back(severity, std::move(copy));
        if (log->capacity > 0 && static_cast<Int>(log->messages.size()) > log->capacity) {
            log->messages.pop_front();
            ++log->firstSequence;
        }
    } catch (const std::bad_alloc&) {
        return OutOfMemoryError();
    }
    return OK;
}

Int QueryMessages(const RenderMessageLog* log, Int first, RenderMessageCallback callback,
                  void* user) {
    if (!log) return 0;
    std::lock_guard<std::mutex> lock(log->mutex);
    const Int end = log->firstSequence + static_cast<Int>(log->messages.size());
    if (callback) {
        for (Int s = first > log->firstSequence ? first : log->firstSequence; s < end; ++s) {
            const auto& m = log->messages[static_cast<size_t>(s - log->firstSequence)];
            callback(user, s, m.first, m.second.c_str());
        }
    }
    return end;
}

const RenderMessageInterface::Slots g_slots{
    .Free = &Free,
    .Alloc = &Alloc,
    .Init = &Init,
    .Reset = &Reset,
    .AddMessage = &AddMessage,
    .QueryMessages = &QueryMessages,
};

void RegisterRenderMessages(Host& host) { host.RegisterService<RenderMessageInterface>(g_slots); }

const bool g_provided = AddServiceProvider(&RegisterRenderMessages);

}  // namespace
}  // namespace host
}  // namespace quorv
