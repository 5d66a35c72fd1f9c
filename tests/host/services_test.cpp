// Strings, byte strings, urls and data types through the framework faces and the host's slots.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "host/src/datatype_service.h"
#include "host/src/services_impl.h"
#include "quorv/host/host.h"
#include "quorv/string.h"
#include "quorv/url.h"

namespace quorv {
namespace {

template <typename R>
std::string MessageOf(const R& r) {
    ErrorObject* e = r.GetErrorPointer();
    return e && e->message ? e->message : "";
}

template <typename R>
ERRORKIND KindOf(const R& r) {
    ErrorObject* e = r.GetErrorPointer();
    return e ? e->kind : ERRORKIND::OTHER;
}

String Text(std::string_view text, Int32 encoding = STRINGENCODING_DEFAULT) {
    Result<String> r = String::FromText(text, encoding);
    EXPECT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
    return r.GetValue();
}

StringObject* Mutable(const String& s) { return const_cast<StringObject*>(s.GetObject()); }

// Makes the n-th next system allocation fail while it lives.
class FailingAllocation {
public:
    explicit FailingAllocation(Int n) { host::Host::Get().FailAllocationAfter(n); }
    ~FailingAllocation() { host::Host::Get().FailAllocationAfter(0); }
};

// ---- strings --------------------------------------------------------------------------------

TEST(HostString, Utf8RoundTripAndCodePoints) {
    const std::string text =
        "Gr\xC3\xBC\xC3\x9F"
        "e, \xE4\xB8\x96\xE7\x95\x8C \xF0\x9F\x98\x80";
    String s = Text(text);
    EXPECT_EQ(s.GetLength(), 11);
    EXPECT_EQ(s.ToUtf8(), text);
    EXPECT_EQ(StringInterface::GetChar(s.GetObject(), 2), 0xFC);
    EXPECT_EQ(StringInterface::GetChar(s.GetObject(), 7), 0x4E16);
    EXPECT_EQ(StringInterface::GetChar(s.GetObject(), 10), 0x1F600);
    EXPECT_EQ(StringInterface::GetChar(s.GetObject(), 11), -1);
    EXPECT_EQ(StringInterface::GetChar(s.GetObject(), -1), -1);
    EXPECT_EQ(Text("").GetLength(), 0);
    // A length of -1 reads up to the NUL.
    StringObject* raw = StringInterface::Alloc(QUORV_SOURCE_LOCATION);
    String holder(raw);
    ASSERT_TRUE(StringInterface::SetCString(raw, "abc\0def", -1, STRINGENCODING_DEFAULT).IsOk());
    EXPECT_EQ(holder.ToUtf8(), "abc");
}

TEST(HostString, EightBitTextIsLatin1) {
    String s = Text("\xE9t\xE9\xFF", STRINGENCODING_8BIT);
    EXPECT_EQ(s.GetLength(), 4);
    EXPECT_EQ(s.ToUtf8(), "\xC3\xA9t\xC3\xA9\xC3\xBF");
    EXPECT_EQ(s.GetHashCode(), Text("\xC3\xA9t\xC3\xA9\xC3\xBF").GetHashCode());
}

TEST(HostString, BadTextIsAnIllegalArgumentNamingTheByte) {
    struct Case {
        std::string bytes;
        const char* message;
    };
    const Case cases[] = {
        {"ab\xC3(", "Invalid UTF-8 at byte 2"},           // continuation byte missing
        {"\xC0\xAF", "Invalid UTF-8 at byte 0"},          // overlong '/'
        {"x\xED\xA0\x80", "Invalid UTF-8 at byte 1"},     // surrogate
        {"abc\xE4\xB8", "Invalid UTF-8 at byte 3"},       // cut off at the end
        {"\xF4\x90\x80\x80", "Invalid UTF-8 at byte 0"},  // above U+10FFFF
        {"\x80", "Invalid UTF-8 at byte 0"},              // stray continuation
    };
    for (const Case& c : cases) {
        Result<String> r = String::FromText(c.bytes);
        ASSERT_TRUE(r.IsError()) << c.message;
        EXPECT_EQ(KindOf(r), ERRORKIND::ILLEGALARGUMENT);
        EXPECT_EQ(MessageOf(r), c.message);
    }
    Result<String> encoding = String::FromText("a", 7);
    EXPECT_EQ(MessageOf(encoding), "Unknown string encoding 7");

    String s = Text("keep");
    Result<void> length = StringInterface::SetCString(Mutable(s), "x", -2, STRINGENCODING_DEFAULT);
    EXPECT_EQ(MessageOf(length), "Negative text length -2");
    Result<void> null = StringInterface::SetCString(Mutable(s), nullptr, 3, STRINGENCODING_DEFAULT);
    EXPECT_EQ(MessageOf(null), "Null text of length 3");
    EXPECT_EQ(s.ToUtf8(), "keep");  // a failed set leaves the text alone
}

TEST(HostString, NullObjectsAreIllegalArguments) {
    String other = Text("x");
    Result<void> append = StringInterface::Append(nullptr, other.GetObject());
    EXPECT_EQ(KindOf(append), ERRORKIND::ILLEGALARGUMENT);
    EXPECT_EQ(MessageOf(append), "Append on a null string");
    EXPECT_EQ(MessageOf(StringInterface::Insert(nullptr, 0, other.GetObject())),
              "Insert on a null string");
    EXPECT_EQ(MessageOf(StringInterface::CopyFrom(nullptr, other.GetObject())),
              "CopyFrom on a null string");
    EXPECT_EQ(MessageOf(StringInterface::SetCString(nullptr, "a", 1, STRINGENCODING_DEFAULT)),
              "SetCString on a null string");
    // Reading a null string reads an empty one.
    EXPECT_EQ(StringInterface::GetLength(nullptr), 0);
    EXPECT_EQ(StringInterface::GetUtf8(nullptr, nullptr, 0), 0);
    // A null argument string is an empty one.
    String s = Text("ab");
    ASSERT_TRUE(StringInterface::Append(Mutable(s), nullptr).IsOk());
    EXPECT_EQ(s.ToUtf8(), "ab");
}

TEST(HostString, GetUtf8WritesWholeCharactersAndReturnsTheNeededLength) {
    String s = Text("a\xC3\xA9\xE4\xB8\x96");  // 1 + 2 + 3 bytes
    char buffer[16];
    std::memset(buffer, 'X', sizeof(buffer));
    EXPECT_EQ(StringInterface::GetUtf8(s.GetObject(), buffer, 16), 6);
    EXPECT_STREQ(buffer, "a\xC3\xA9\xE4\xB8\x96");
    std::memset(buffer, 'X', sizeof(buffer));
    EXPECT_EQ(StringInterface::GetUtf8(s.GetObject(), buffer, 6), 6);  // no room for the NUL
    EXPECT_STREQ(buffer, "a\xC3\xA9");
    std::memset(buffer, 'X', sizeof(buffer));
    EXPECT_EQ(StringInterface::GetUtf8(s.GetObject(), buffer, 3), 6);
    EXPECT_STREQ(buffer, "a");  // the 2-byte character would leave no room for the NUL
    EXPECT_EQ(StringInterface::GetUtf8(s.GetObject(), nullptr, 0), 6);
}

TEST(HostString, EditsWithBoundsAndAliasing) {
    String s = Text("ace");
    ASSERT_TRUE(s.Insert(1, Text("b")).IsOk());
    ASSERT_TRUE(s.Insert(4, Text("!")).IsOk());
    EXPECT_EQ(s.ToUtf8(), "abce!");
    Result<void> beyond = s.Insert(6, Text("x"));
    EXPECT_EQ(KindOf(beyond), ERRORKIND::ILLEGALARGUMENT);
    EXPECT_EQ(MessageOf(beyond), "Insert position 6 is outside the string of length 5");
    EXPECT_EQ(MessageOf(s.Insert(-1, Text("x"))),
              "Insert position -1 is outside the string of length 5");

    String self = Text("abc");
    ASSERT_TRUE(self.Insert(1, self).IsOk());
    EXPECT_EQ(self.ToUtf8(), "aabcbc");
    ASSERT_TRUE(self.Append(self).IsOk());
    EXPECT_EQ(self.ToUtf8(), "aabcbcaabcbc");

    String e = Text("abcdef");
    ASSERT_TRUE(e.Erase(4, 10).IsOk());
    EXPECT_EQ(e.ToUtf8(), "abcd");
    ASSERT_TRUE(e.Erase(-2, 3).IsOk());  // the part before the string is lost, one remains
    EXPECT_EQ(e.ToUtf8(), "bcd");
    ASSERT_TRUE(e.Erase(1, 0).IsOk());
    ASSERT_TRUE(e.Erase(1, -4).IsOk());
    ASSERT_TRUE(e.Erase(3, 2).IsOk());
    EXPECT_EQ(e.ToUtf8(), "bcd");
    ASSERT_TRUE(e.Erase(1, 1).IsOk());
    EXPECT_EQ(e.ToUtf8(), "bd");

    String t = Text(" \t\n\xC2\xA0\xE3\x80\x80x y ");
    ASSERT_TRUE(t.TrimLeft().IsOk());
    EXPECT_EQ(t.ToUtf8(), "x y ");
    String blank = Text(" \r\n");
    ASSERT_TRUE(blank.TrimLeft().IsOk());
    EXPECT_EQ(blank.GetLength(), 0);

    String copy = Text("old");
    ASSERT_TRUE(StringInterface::CopyFrom(Mutable(copy), Text("n\xC3\xA9w").GetObject()).IsOk());
    EXPECT_EQ(copy.ToUtf8(), "n\xC3\xA9w");
    ASSERT_TRUE(StringInterface::CopyFrom(Mutable(copy), nullptr).IsOk());
    EXPECT_EQ(copy.GetLength(), 0);
}

TEST(HostString, ComparePartByCodePoint) {
    String a = Text("hello world");
    EXPECT_EQ(a.ComparePart(Text("world"), 6, 5), 0);
    EXPECT_EQ(a.ComparePart(Text("world"), 0, 5), -1);  // 'h' < 'w'
    EXPECT_EQ(a.ComparePart(Text("hello"), 0, 5), 0);
    EXPECT_EQ(a.ComparePart(Text("hellO"), 0, 5), 1);
    EXPECT_EQ(a.ComparePart(Text("worlds"), 6, 6), -1);  // a's part ends after 5
    EXPECT_EQ(a.ComparePart(Text("wor"), 6, 5), 1);      // b's part ends after 3
    EXPECT_EQ(a.ComparePart(Text("xyz"), 0, 0), 0);
    EXPECT_EQ(a.ComparePart(Text("w"), 20, 1), -1);               // outside a: empty part
    EXPECT_EQ(Text("\xC3\xA9").ComparePart(Text("z"), 0, 1), 1);  // U+00E9 > 'z'
    EXPECT_EQ(StringInterface::ComparePart(nullptr, nullptr, 0, 3), 0);
}

TEST(HostString, HashIsFnv1aOverCodePoints) {
    // FNV-1a over the bytes 61 00 00 00 E9 00 00 00.
    EXPECT_EQ(Text("a\xC3\xA9").GetHashCode(), 0x09a09d8abc4042bdull);
    EXPECT_EQ(Text("").GetHashCode(), 0xcbf29ce484222325ull);
    EXPECT_NE(Text("ab").GetHashCode(), Text("ba").GetHashCode());
}

TEST(HostString, CopyOnWriteLeavesTheOtherHolderAlone) {
    String a = Text("abc");
    String b = a;
    EXPECT_EQ(GetCountWord(a.GetObject()), 2 * REFERENCE_STEP);
    ASSERT_TRUE(b.Append(Text("d")).IsOk());
    EXPECT_NE(a.GetObject(), b.GetObject());
    EXPECT_EQ(a.ToUtf8(), "abc");
    EXPECT_EQ(b.ToUtf8(), "abcd");
    EXPECT_EQ(GetCountWord(a.GetObject()), REFERENCE_STEP);
    EXPECT_EQ(GetCountWord(b.GetObject()), REFERENCE_STEP);
    const StringObject* before = b.GetObject();
    ASSERT_TRUE(b.Append(Text("e")).IsOk());  // not shared: edited in place
    EXPECT_EQ(b.GetObject(), before);
}

TEST(HostString, ConstantsAreInternedImmortalAndUnchangeable) {
    String c1 = String::Constant("net.quorv.test.constant");
    String c2 = String::Constant("net.quorv.test.constant");
    ASSERT_NE(c1.GetObject(), nullptr);
    EXPECT_EQ(c1.GetObject(), c2.GetObject());
    EXPECT_GE(GetCountWord(c1.GetObject()), host::IMMORTAL_COUNT);
    // The same characters from 8-bit text are the same constant.
    EXPECT_EQ(StringInterface::GetAndCacheConstString("\xE9", 1, STRINGENCODING_8BIT),
              StringInterface::GetAndCacheConstString("\xC3\xA9", 2, STRINGENCODING_DEFAULT));
    EXPECT_EQ(StringInterface::GetAndCacheConstString("\xC3", 1, STRINGENCODING_DEFAULT), nullptr);

    Result<void> direct = StringInterface::Append(Mutable(c1), Text("x").GetObject());
    EXPECT_EQ(KindOf(direct), ERRORKIND::ILLEGALSTATE);
    EXPECT_EQ(MessageOf(direct), "Append on a constant string");
    StringInterface::Erase(Mutable(c1), 0, 3);
    StringInterface::Free(Mutable(c1));  // constants outlive even a direct free
    EXPECT_EQ(c1.ToUtf8(), "net.quorv.test.constant");

    String edited = c1;
    ASSERT_TRUE(edited.Append(Text("!")).IsOk());
    EXPECT_EQ(edited.ToUtf8(), "net.quorv.test.constant!");
    EXPECT_EQ(c2.ToUtf8(), "net.quorv.test.constant");
}

TEST(HostString, ConstantsAreInternedAcrossThreads) {
    std::vector<const StringObject*> seen(4);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i) {
        threads.emplace_back([&seen, i] {
            for (int k = 0; k < 200; ++k) {
                std::string text = "net.quorv.test.race." + std::to_string(k);
                const StringObject* s = StringInterface::GetAndCacheConstString(
                    text.c_str(), static_cast<Int>(text.size()), STRINGENCODING_DEFAULT);
                if (k == 199) seen[i] = s;
            }
        });
    }
    for (auto& t : threads) t.join();
    ASSERT_NE(seen[0], nullptr);
    for (const StringObject* s : seen) EXPECT_EQ(s, seen[0]);
}

TEST(HostString, OutOfMemoryIsAnErrorValue) {
    Result<String> r = [] {
        FailingAllocation fail(1);
        return String::FromText("x");
    }();
    ASSERT_TRUE(r.IsError());
    EXPECT_EQ(KindOf(r), ERRORKIND::OUTOFMEMORY);
    String shared = Text("abc");
    String other = shared;
    String d = Text("d");
    Result<void> append = [&] {
        FailingAllocation fail(1);
        return other.Append(d);
    }();
    EXPECT_EQ(KindOf(append), ERRORKIND::OUTOFMEMORY);
    EXPECT_EQ(shared.ToUtf8(), "abc");
}

TEST(HostCString, BytesWithNulAndInternedConstants) {
    const std::string bytes("a\0b\xFF", 4);
    Result<CString> r = CString::FromBytes(bytes);
    ASSERT_TRUE(r.IsOk());
    CString s = r.GetValue();
    EXPECT_EQ(s.View(), bytes);
    EXPECT_EQ(CStringInterface::GetLength(s.GetObject()), 4);
    EXPECT_EQ(CStringInterface::GetData(s.GetObject())[4], '\0');

    const CStringObject* c1 = CStringInterface::GetAndCacheConstString("xyz", 3);
    const CStringObject* c2 = CStringInterface::GetAndCacheConstString("xyz\0ignored", -1);
    EXPECT_EQ(c1, c2);
    EXPECT_STREQ(CStringInterface::GetData(c1), "xyz");
    Result<void> set = CStringInterface::SetCString(const_cast<CStringObject*>(c1), "q", 1);
    EXPECT_EQ(KindOf(set), ERRORKIND::ILLEGALSTATE);
    EXPECT_EQ(MessageOf(set), "SetCString on a constant string");
    EXPECT_EQ(
        MessageOf(CStringInterface::SetCString(const_cast<CStringObject*>(s.GetObject()), "q", -3)),
        "Negative text length -3");
    EXPECT_EQ(s.View(), bytes);
    EXPECT_STREQ(CStringInterface::GetData(nullptr), "");
}

// ---- urls -----------------------------------------------------------------------------------

Url MakeUrl(std::string_view text) {
    Result<Url> r = Url::FromText(text);
    EXPECT_TRUE(r.IsOk()) << text << ": " << ErrorToString(r.GetErrorPointer());
    return r.GetValue();
}

TEST(HostUrl, TextFormsSplitIntoSchemeAuthorityAndPath) {
    struct Case {
        const char* text;
        const char* scheme;
        const char* authority;
        const char* path;
        const char* name;
        const char* written;
    };
    const Case cases[] = {
        {"relative:///tex", "relative", "", "/tex", "tex", "relative:///tex"},
        {"http://example.org/a/b.png", "http", "example.org", "/a/b.png", "b.png",
         "http://example.org/a/b.png"},
        {"HTTP://Host", "http", "Host", "", "", "http://Host"},
        {"/home/u/pic.JPG", "file", "", "/home/u/pic.JPG", "pic.JPG", "/home/u/pic.JPG"},
        {"file:///tmp/x", "file", "", "/tmp/x", "x", "/tmp/x"},
        {"file://server/share/d/", "file", "server", "/share/d/", "d", "file://server/share/d/"},
        {"tex/a.png", "file", "", "tex/a.png", "a.png", "tex/a.png"},
        {"dir/odd://name", "file", "", "dir/odd://name", "name", "dir/odd://name"},
        {"", "", "", "", "", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        Url u = MakeUrl(c.text);
        EXPECT_EQ(u.GetScheme().View(), c.scheme);
        EXPECT_EQ(u.GetAuthority(), c.authority);
        EXPECT_EQ(u.GetPath(), c.path);
        EXPECT_EQ(u.GetName(), c.name);
        EXPECT_EQ(u.ToText(), c.written);
        EXPECT_EQ(MakeUrl(u.ToText()).Compare(u), 0);  // the written form reads back the same
    }
    EXPECT_TRUE(MakeUrl("").IsEmpty());
    EXPECT_FALSE(MakeUrl("relative://").IsEmpty());
}

TEST(HostUrl, SchemesAreInternedLiteralIds) {
    Url a = MakeUrl("relative:///a");
    Url b = MakeUrl("Relative:///b");
    EXPECT_EQ(a.GetScheme().text, b.GetScheme().text);
    EXPECT_EQ(a.GetScheme(), LiteralId("relative"));
    UrlObject* c = UrlInterface::Alloc(QUORV_SOURCE_LOCATION);
    Url holder(c);
    std::string scheme = "RELATIVE";
    ASSERT_TRUE(UrlInterface::SetScheme(c, LiteralId(scheme.c_str())).IsOk());
    scheme = "gone";  // the url keeps its own text
    EXPECT_EQ(holder.GetScheme().text, a.GetScheme().text);
    EXPECT_EQ(holder.ToText(), "relative://");
}

TEST(HostUrl, BadTextAndNullUrlsAreIllegalArguments) {
    struct Case {
        std::string text;
        const char* message;
    };
    const Case cases[] = {
        {"://x", "Url ://x has no scheme before ://"},
        {"1abc://x", "Bad url scheme 1abc"},
        {"a b://x", "Bad url scheme a b"},
        {std::string("/tmp/a\0b", 8), "Url text contains a NUL byte"},
    };
    for (const Case& c : cases) {
        Result<Url> r = Url::FromText(c.text);
        ASSERT_TRUE(r.IsError()) << c.message;
        EXPECT_EQ(KindOf(r), ERRORKIND::ILLEGALARGUMENT);
        EXPECT_EQ(MessageOf(r), c.message);
    }
    Url u = MakeUrl("http://host/p");
    UrlObject* raw = const_cast<UrlObject*>(u.GetObject());
    EXPECT_EQ(MessageOf(UrlInterface::SetAuthority(raw, "a/b", 3)),
              "Url authority a/b contains a '/'");
    EXPECT_EQ(MessageOf(UrlInterface::SetScheme(raw, LiteralId("9p"))), "Bad url scheme 9p");
    EXPECT_EQ(MessageOf(UrlInterface::SetPath(raw, "x", -5)), "Bad url path length -5");
    EXPECT_EQ(MessageOf(UrlInterface::Append(raw, nullptr, 2)), "Bad url part length 2");
    EXPECT_EQ(u.ToText(), "http://host/p");  // failed edits change nothing
    EXPECT_EQ(MessageOf(UrlInterface::SetUrl(nullptr, "a", 1)), "SetUrl on a null url");
    EXPECT_EQ(MessageOf(UrlInterface::Append(nullptr, "a", 1)), "Append on a null url");
    EXPECT_EQ(KindOf(UrlInterface::AppendUrl(nullptr, raw)), ERRORKIND::ILLEGALARGUMENT);
}

TEST(HostUrl, AppendJoinsWithExactlyOneSeparator) {
    Url u = MakeUrl("relative:///");
    ASSERT_TRUE(u.Append("tex").IsOk());
    EXPECT_EQ(u.GetPath(), "/tex");
    ASSERT_TRUE(u.Append("/a/").IsOk());
    EXPECT_EQ(u.GetPath(), "/tex/a/");
    ASSERT_TRUE(u.Append("//b.png").IsOk());
    EXPECT_EQ(u.GetPath(), "/tex/a/b.png");
    ASSERT_TRUE(u.Append("").IsOk());
    ASSERT_TRUE(u.Append("///").IsOk());
    EXPECT_EQ(u.GetPath(), "/tex/a/b.png");

    Url noPath = MakeUrl("http://host");
    ASSERT_TRUE(noPath.Append("x/y").IsOk());
    EXPECT_EQ(noPath.GetPath(), "x/y");
    EXPECT_EQ(noPath.ToText(), "http://host/x/y");

    // A search path candidate: base folder, then the entry, then the asked-for url.
    Url base = MakeUrl("file:///home/u/assets//");
    Url candidate = base;
    ASSERT_TRUE(candidate.Append(MakeUrl("relative:///tex")).IsOk());
    ASSERT_TRUE(candidate.Append(MakeUrl("relative:///brick.png")).IsOk());
    EXPECT_EQ(candidate.ToText(), "/home/u/assets/tex/brick.png");
    EXPECT_EQ(base.ToText(), "/home/u/assets//");  // shared: copied before the edit
    EXPECT_NE(base.GetObject(), candidate.GetObject());
    ASSERT_TRUE(candidate.Append(Url()).IsOk());
    EXPECT_EQ(candidate.ToText(), "/home/u/assets/tex/brick.png");
}

TEST(HostUrl, CheckSuffixIgnoresCaseAndTheDot) {
    Url png = MakeUrl("relative:///tex/b.PNG");
    EXPECT_TRUE(png.CheckSuffix("png"));
    EXPECT_TRUE(png.CheckSuffix(".Png"));
    EXPECT_FALSE(png.CheckSuffix("jpg"));
    EXPECT_FALSE(png.CheckSuffix("NG"));
    EXPECT_FALSE(png.CheckSuffix(""));
    EXPECT_FALSE(png.CheckSuffix(nullptr));
    Url archive = MakeUrl("/x/data.tar.gz");
    EXPECT_TRUE(archive.CheckSuffix("gz"));
    EXPECT_TRUE(archive.CheckSuffix("tar.gz"));
    EXPECT_FALSE(MakeUrl("/x/.png").CheckSuffix("png"));      // a hidden name, no suffix
    EXPECT_FALSE(MakeUrl("/x.png/name").CheckSuffix("png"));  // only the last part counts
    EXPECT_FALSE(Url().CheckSuffix("png"));
}

TEST(HostUrl, CompareOrdersSchemeAuthorityPathWithNullFirst) {
    Url u = MakeUrl("b://m/p");
    EXPECT_LT(UrlInterface::Compare(nullptr, u.GetObject()), 0);
    EXPECT_GT(UrlInterface::Compare(u.GetObject(), nullptr), 0);
    EXPECT_EQ(UrlInterface::Compare(nullptr, nullptr), 0);
    EXPECT_EQ(u.Compare(MakeUrl("a://z/z")), 1);
    EXPECT_EQ(u.Compare(MakeUrl("b://n/a")), -1);
    EXPECT_EQ(u.Compare(MakeUrl("b://m/o")), 1);
    EXPECT_EQ(u.Compare(MakeUrl("b://m/p")), 0);
    EXPECT_EQ(MakeUrl("/x").Compare(MakeUrl("file:///x")), 0);
}

TEST(HostUrl, GetTextFollowsTheBufferProtocol) {
    Url u = MakeUrl("relative:///tex/brick.png");
    char buffer[8];
    EXPECT_EQ(UrlInterface::GetText(u.GetObject(), buffer, sizeof(buffer)), 25);
    EXPECT_STREQ(buffer, "relativ");
    EXPECT_EQ(UrlInterface::GetName(u.GetObject(), buffer, sizeof(buffer)), 9);
    EXPECT_STREQ(buffer, "brick.p");
    EXPECT_EQ(UrlInterface::GetPath(u.GetObject(), nullptr, 0), 14);
    EXPECT_EQ(UrlInterface::GetAuthority(nullptr, buffer, sizeof(buffer)), 0);
    EXPECT_STREQ(buffer, "");
}

TEST(HostUrl, CopiesAreIndependent) {
    Url a = MakeUrl("http://host/a");
    UrlObject* copy = UrlInterface::AllocCopy(a.GetObject(), QUORV_SOURCE_LOCATION);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(GetCountWord(copy), 0u);  // the caller adds the first reference
    Url b(copy);
    ASSERT_TRUE(UrlInterface::SetPath(copy, "/b", 2).IsOk());
    EXPECT_EQ(a.ToText(), "http://host/a");
    EXPECT_EQ(b.ToText(), "http://host/b");
    Url empty(UrlInterface::AllocCopy(nullptr, QUORV_SOURCE_LOCATION));
    ASSERT_NE(empty.GetObject(), nullptr);
    EXPECT_TRUE(empty.IsEmpty());
}

TEST(HostUrl, IoDetectAsksTheFileSystem) {
    namespace fs = std::filesystem;
    fs::path dir = fs::temp_directory_path() / ("quorv_url_test_" + std::to_string(::getpid()));
    fs::remove_all(dir);
    fs::create_directories(dir / "sub");
    std::ofstream(dir / "file.txt") << "x";
    fs::create_symlink(dir / "file.txt", dir / "link");
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);

    EXPECT_EQ(MakeUrl((dir / "file.txt").string()).IoDetect(), IODETECT::FILE);
    EXPECT_EQ(MakeUrl("file://" + (dir / "sub").string()).IoDetect(), IODETECT::DIRECTORY);
    EXPECT_EQ(MakeUrl((dir / "link").string()).IoDetect(), IODETECT::LINK);
    EXPECT_EQ(MakeUrl((dir / "fifo").string()).IoDetect(), IODETECT::UNKNOWN);
    EXPECT_EQ(MakeUrl((dir / "missing").string()).IoDetect(), IODETECT::NONEXISTENT);
    EXPECT_EQ(MakeUrl((dir / "file.txt" / "below").string()).IoDetect(), IODETECT::NONEXISTENT);
    EXPECT_EQ(MakeUrl((dir / std::string(5000, 'n')).string()).IoDetect(), IODETECT::ERRORSTATE);
    EXPECT_EQ(MakeUrl("http://" + (dir / "file.txt").string()).IoDetect(), IODETECT::UNKNOWN);
    EXPECT_EQ(MakeUrl("relative:///file.txt").IoDetect(), IODETECT::UNKNOWN);
    EXPECT_EQ(UrlInterface::IoDetect(nullptr), IODETECT::ERRORSTATE);
    fs::remove_all(dir);
}

// ---- data types -----------------------------------------------------------------------------

template <typename T>
void ExpectBuiltIn(DATATYPEKIND kind) {
    const DataType* t = DataTypeLibInterface::GetRuntimeDataType(DataTypeIdOf<T>::id);
    ASSERT_NE(t, nullptr) << DataTypeIdOf<T>::id;
    EXPECT_EQ(t, GetDataType<T>());
    EXPECT_EQ(t->id.View(), DataTypeIdOf<T>::id);
    EXPECT_EQ(t->size, static_cast<Int>(sizeof(T)));
    EXPECT_EQ(t->alignment, static_cast<Int>(alignof(T)));
    EXPECT_EQ(t->kind, kind);
    EXPECT_EQ(t->flags & DataType::FLAG_IMMORTAL, DataType::FLAG_IMMORTAL);
    EXPECT_EQ(t->operations->GetSize(t), static_cast<Int>(sizeof(T)));
}

TEST(HostDataType, BuiltInTypesByTheirIds) {
    ExpectBuiltIn<Bool>(DATATYPEKIND::PRIMITIVE);
    ExpectBuiltIn<Int32>(DATATYPEKIND::PRIMITIVE);
    ExpectBuiltIn<Int>(DATATYPEKIND::PRIMITIVE);
    ExpectBuiltIn<Float32>(DATATYPEKIND::PRIMITIVE);
    ExpectBuiltIn<Float64>(DATATYPEKIND::PRIMITIVE);
    ExpectBuiltIn<Vector2d64>(DATATYPEKIND::TUPLE);
    ExpectBuiltIn<Vector64>(DATATYPEKIND::TUPLE);
    ExpectBuiltIn<Vector32>(DATATYPEKIND::TUPLE);
    ExpectBuiltIn<Matrix64>(DATATYPEKIND::TUPLE);
    ExpectBuiltIn<Color64>(DATATYPEKIND::TUPLE);
    ExpectBuiltIn<ColorA64>(DATATYPEKIND::TUPLE);
    ExpectBuiltIn<ColorA32>(DATATYPEKIND::TUPLE);
    ExpectBuiltIn<std::string>(DATATYPEKIND::PRIMITIVE);

    const DataType* invalid = DataTypeLibInterface::GetInvalidType();
    ASSERT_NE(invalid, nullptr);
    EXPECT_EQ(invalid->id.View(), "net.quorv.datatype.invalid");
    EXPECT_EQ(invalid->kind, DATATYPEKIND::INVALID);
    EXPECT_EQ(DataTypeLibInterface::GetVoidType()->kind, DATATYPEKIND::VOID);
    EXPECT_EQ(DataTypeLibInterface::GetVoidType()->id.View(), "void");
    const DataType* typeType = DataTypeLibInterface::GetDataTypeType();
    EXPECT_EQ(typeType->kind, DATATYPEKIND::DATATYPE);
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType("net.quorv.datatype"), typeType);
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType("net.quorv.no.such.type"), nullptr);
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType(nullptr), nullptr);
    // The invalid type has no operations: no value of it can be made.
    EXPECT_TRUE(Data::Make(invalid, nullptr).IsEmpty());

    std::vector<const DataType*> all = host::ListDataTypes();
    ASSERT_GE(all.size(), 17u);
    EXPECT_EQ(all[0], invalid);
    EXPECT_EQ(all[1], DataTypeLibInterface::GetVoidType());
}

TEST(HostDataType, OperationsCompareAsDeclared) {
    const DataType* v = GetDataType<Vector64>();
    Vector64 a{1, 2, 3}, b{1, 2, 4};
    EXPECT_TRUE(v->operations->IsEqual(v, &a, &a));
    EXPECT_FALSE(v->operations->IsEqual(v, &a, &b));
    EXPECT_NE(v->operations->Compare(v, &a, &b), 0);
    EXPECT_EQ(v->operations->GetHashCode(v, &a), v->operations->GetHashCode(v, &a));
    const DataType* s = GetDataType<std::string>();
    std::string x = "apple", y = "banana";
    EXPECT_EQ(s->operations->Compare(s, &x, &y), -1);
    EXPECT_EQ(s->operations->Compare(s, &y, &x), 1);
    Data d = Data::Of(std::string("kept"));
    Data copy = d;
    *static_cast<std::string*>(copy.GetPointer()) = "changed";
    EXPECT_EQ(*d.Get<std::string>(), "kept");
    EXPECT_EQ(copy.Get<Float64>(), nullptr);
}

// A counted stand-in for a class object: the class value type only counts references.
struct FakeClass {
    ObjectHeader header{nullptr, &FakeClass::Destroy, 0, REFERENCE_STEP};
    int payload = 0;
    static inline int destroyed = 0;
    static void Destroy(void*) { ++destroyed; }
    ClassObject* Object() { return reinterpret_cast<ClassObject*>(&payload); }
    UInt References() const { return header.count.load() / REFERENCE_STEP; }
};

TEST(HostDataType, ClassValuesHoldAReference) {
    const DataType* t = DataTypeLibInterface::GetRuntimeDataType(CLASS_DATATYPE_ID);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->size, 8);
    const DataTypeOperations& ops = *t->operations;
    FakeClass a, b;
    FakeClass::destroyed = 0;
    {
        ClassObject* value = a.Object();
        Data d = Data::Make(t, &value);
        EXPECT_EQ(a.References(), 2u);
        Data copy = d;
        EXPECT_EQ(a.References(), 3u);
        Data other = Data::Make(t, nullptr);  // holds null
        EXPECT_EQ(*static_cast<ClassObject**>(other.GetPointer()), nullptr);
        ClassObject* bValue = b.Object();
        ops.HeapAssign(t, other.GetPointer(), &bValue);
        EXPECT_EQ(b.References(), 2u);
        ops.HeapAssign(t, other.GetPointer(), other.GetPointer());  // self assignment
        EXPECT_EQ(b.References(), 2u);
        EXPECT_FALSE(ops.HeapIsEqual(t, d.GetPointer(), other.GetPointer()));
        EXPECT_TRUE(ops.HeapIsEqual(t, d.GetPointer(), copy.GetPointer()));
        ops.HeapReset(t, other.GetPointer());
        EXPECT_EQ(b.References(), 1u);
    }
    EXPECT_EQ(a.References(), 1u);

    // Arrays: construct, fill, move over an overlapping run, destruct.
    ClassObject* run[4];
    ops.Construct(run, 8, 4);
    ClassObject* aValue = a.Object();
    ops.Fill(run, &aValue, 8, 2);  // a a _ _
    EXPECT_EQ(a.References(), 3u);
    ClassObject* bValue = b.Object();
    ops.Fill(run + 2, &bValue, 8, 1);  // a a b _
    ops.Move(run + 1, run, 8, 3);      // _ a a b: walked backwards, no reference gained or lost
    EXPECT_EQ(run[0], nullptr);
    EXPECT_EQ(run[1], a.Object());
    EXPECT_EQ(run[2], a.Object());
    EXPECT_EQ(run[3], b.Object());
    EXPECT_EQ(a.References(), 3u);
    EXPECT_EQ(b.References(), 2u);
    ClassObject* copied[4];
    ops.CopyConstruct(copied, run, 8, 4);
    EXPECT_EQ(a.References(), 5u);
    ops.Swap(copied, copied + 3, 8, 1);
    EXPECT_EQ(copied[0], b.Object());
    ops.Destruct(copied, 8, 4);
    ops.Destruct(run, 8, 4);
    EXPECT_EQ(a.References(), 1u);
    EXPECT_EQ(b.References(), 1u);
    EXPECT_EQ(FakeClass::destroyed, 0);
}

const EnumValue MODE_VALUES[] = {{"A", 0}, {"B", 5}};

TEST(HostDataType, EnumTypesRegisterOncePerValueSet) {
    constexpr const char* ID = "net.quorv.test.enum.mode";
    std::string names[] = {"A", "B"};
    EnumValue values[] = {{names[0].c_str(), 0}, {names[1].c_str(), 5}};
    Result<const DataType*> r = DataTypeLibInterface::RegisterEnumType(ID, "MODE", values, 2);
    ASSERT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
    const DataType* t = r.GetValue();
    EXPECT_EQ(t->kind, DATATYPEKIND::ENUM);
    EXPECT_EQ(t->size, 4);
    EXPECT_STREQ(t->typeName, "MODE");
    names[0] = "changed";  // the type keeps its own copies
    ASSERT_EQ(t->enumCount, 2);
    EXPECT_STREQ(t->enumValues[0].name, "A");
    EXPECT_EQ(t->enumValues[1].value, 5);
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType(ID), t);

    Result<const DataType*> again =
        DataTypeLibInterface::RegisterEnumType(ID, "MODE", MODE_VALUES, 2);
    EXPECT_EQ(again.GetValue(), t);
    const EnumValue otherValues[] = {{"A", 0}, {"B", 6}};
    Result<const DataType*> other =
        DataTypeLibInterface::RegisterEnumType(ID, "MODE", otherValues, 2);
    EXPECT_EQ(KindOf(other), ERRORKIND::ILLEGALSTATE);
    EXPECT_EQ(MessageOf(other),
              "Data type net.quorv.test.enum.mode is already registered with other values");
    EXPECT_EQ(MessageOf(DataTypeLibInterface::RegisterEnumType("int32", "x", MODE_VALUES, 1)),
              "Data type int32 is already registered with other values");
    EXPECT_EQ(MessageOf(DataTypeLibInterface::RegisterEnumType(nullptr, "x", MODE_VALUES, 1)),
              "RegisterEnumType without an id");
    const EnumValue unnamed[] = {{"A", 0}, {nullptr, 1}};
    EXPECT_EQ(
        MessageOf(DataTypeLibInterface::RegisterEnumType("net.quorv.test.enum.x", "x", unnamed, 2)),
        "Value 1 of enum type net.quorv.test.enum.x has no name");
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType("net.quorv.test.enum.x"), nullptr);
    EXPECT_EQ(
        MessageOf(DataTypeLibInterface::RegisterEnumType("net.quorv.test.enum.y", "y", nullptr, 1)),
        "Bad value list of enum type net.quorv.test.enum.y: count 1 and no list");

    Int32 value = 5;
    Data d = Data::Make(t, &value);
    EXPECT_EQ(*static_cast<const Int32*>(d.GetPointer()), 5);
}

TEST(HostDataType, GenericAndDelegateTypesAreMadeOncePerArgumentSet) {
    const DataType* f64 = GetDataType<Float64>();
    Result<const DataType*> g = DataTypeLibInterface::GetGenericType(f64);
    ASSERT_TRUE(g.IsOk());
    EXPECT_EQ(g.GetValue()->id.View(), "generic<float64>");
    EXPECT_EQ(g.GetValue()->kind, DATATYPEKIND::GENERIC);
    EXPECT_EQ(g.GetValue()->elementType, f64);
    EXPECT_EQ(g.GetValue()->size, 8);
    EXPECT_EQ(DataTypeLibInterface::GetGenericType(f64).GetValue(), g.GetValue());
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType("generic<float64>"), g.GetValue());
    EXPECT_EQ(MessageOf(DataTypeLibInterface::GetGenericType(nullptr)),
              "GetGenericType of a null element type");

    const DataType* args[] = {GetDataType<Int32>(), GetDataType<std::string>()};
    Result<const DataType*> d = DataTypeLibInterface::GetDelegateType(nullptr, args, 2);
    ASSERT_TRUE(d.IsOk());
    EXPECT_EQ(d.GetValue()->id.View(), "delegate<void(int32,net.quorv.string)>");
    EXPECT_EQ(d.GetValue()->kind, DATATYPEKIND::DELEGATE);
    EXPECT_EQ(d.GetValue()->size, 16);
    EXPECT_EQ(DataTypeLibInterface::GetDelegateType(DataTypeLibInterface::GetVoidType(), args, 2)
                  .GetValue(),
              d.GetValue());
    const DataType* swapped[] = {args[1], args[0]};
    Result<const DataType*> s = DataTypeLibInterface::GetDelegateType(f64, swapped, 2);
    EXPECT_EQ(s.GetValue()->id.View(), "delegate<float64(net.quorv.string,int32)>");
    EXPECT_NE(s.GetValue(), d.GetValue());
    EXPECT_EQ(DataTypeLibInterface::GetDelegateType(f64, nullptr, 0).GetValue()->id.View(),
              "delegate<float64()>");
    const DataType* withNull[] = {args[0], nullptr};
    EXPECT_EQ(MessageOf(DataTypeLibInterface::GetDelegateType(f64, withNull, 2)),
              "Argument 1 of a delegate type is null");
    EXPECT_EQ(MessageOf(DataTypeLibInterface::GetDelegateType(f64, args, -1)),
              "Bad argument list of a delegate type: count -1");
    EXPECT_EQ(MessageOf(DataTypeLibInterface::GetDelegateType(f64, nullptr, 2)),
              "Bad argument list of a delegate type: count 2 and no list");

    int context = 0;
    host::DelegateValue value{nullptr, &context};
    Data dv = Data::Make(d.GetValue(), &value);
    Data dv2 = dv;
    EXPECT_TRUE(
        d.GetValue()->operations->HeapIsEqual(d.GetValue(), dv.GetPointer(), dv2.GetPointer()));
}

TEST(HostDataType, MadeTypesAreSharedAcrossThreads) {
    const DataType* element = GetDataType<ColorA32>();
    std::vector<const DataType*> generic(4), enums(4);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < generic.size(); ++i) {
        threads.emplace_back([&, i] {
            generic[i] = DataTypeLibInterface::GetGenericType(element).GetValue();
            enums[i] = DataTypeLibInterface::RegisterEnumType("net.quorv.test.enum.race", "RACE",
                                                              MODE_VALUES, 2)
                           .GetValue();
        });
    }
    for (auto& t : threads) t.join();
    ASSERT_NE(generic[0], nullptr);
    ASSERT_NE(enums[0], nullptr);
    for (size_t i = 1; i < generic.size(); ++i) {
        EXPECT_EQ(generic[i], generic[0]);
        EXPECT_EQ(enums[i], enums[0]);
    }
}

struct Pair32 {
    Int32 a = 0, b = 0;
    friend bool operator==(const Pair32&, const Pair32&) = default;
};

DataTypeRecord MakeRecord(const char* id, DATATYPEKIND kind = DATATYPEKIND::TUPLE) {
    DataTypeRecord r;
    r.id = LiteralId(id);
    r.typeName = "Pair32";
    r.kind = kind;
    r.operations = &DataTypeOperationsOf<Pair32, COMPARISON::BYTES>();
    return r;
}

TEST(HostDataType, ModuleRecordsDefineAndRemoveTheirTypes) {
    constexpr const char* ID = "net.quorv.test.datatype.pair";
    DataTypeRecord record = MakeRecord(ID);
    Result<const DataType*> r = host::DefineDataTypeFromRecord(record);
    ASSERT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
    const DataType* t = r.GetValue();
    EXPECT_EQ(record.value, t);
    EXPECT_EQ(t->size, 8);
    EXPECT_EQ(t->alignment, 4);
    EXPECT_EQ(t->flags & DataType::FLAG_IMMORTAL, 0);
    EXPECT_EQ(GetCountWord(t), REFERENCE_STEP);  // the table's reference
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType(ID), t);
    std::vector<const DataType*> all = host::ListDataTypes();
    EXPECT_EQ(all.back(), t);

    DataTypeRecord twice = MakeRecord(ID);
    Result<const DataType*> second = host::DefineDataTypeFromRecord(twice);
    EXPECT_EQ(KindOf(second), ERRORKIND::ILLEGALSTATE);
    EXPECT_EQ(MessageOf(second), "Data type net.quorv.test.datatype.pair is defined twice");
    EXPECT_EQ(twice.value, nullptr);
    host::RemoveDataTypeOfRecord(twice);  // defined nothing: the first type stays
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType(ID), t);

    const DataType* generic = DataTypeLibInterface::GetGenericType(t).GetValue();
    EXPECT_EQ(generic->id.View(), "generic<net.quorv.test.datatype.pair>");
    const DataType* nested = DataTypeLibInterface::GetGenericType(generic).GetValue();
    const DataType* args[] = {nested};
    const DataType* delegate = DataTypeLibInterface::GetDelegateType(nullptr, args, 1).GetValue();
    EXPECT_EQ(delegate->id.View(),
              "delegate<void(generic<generic<net.quorv.test.datatype.pair>>)>");
    AddReference(t);  // a holder that outlives the removal
    host::RemoveDataTypeOfRecord(record);
    EXPECT_EQ(record.value, nullptr);
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType(ID), nullptr);
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType("generic<net.quorv.test.datatype.pair>"),
              nullptr);
    // Types made over it, directly or not, go with it.
    all = host::ListDataTypes();
    for (const DataType* made : {generic, nested, delegate}) {
        EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType(made->id.View().data()), nullptr)
            << made->id.View();
        EXPECT_EQ(std::find(all.begin(), all.end(), made), all.end());
    }
    EXPECT_EQ(t->id.View(), ID);  // still readable through the held reference
    RemoveReference(t);

    // Defined again after removal: a new type, and a new generic over it.
    DataTypeRecord again = MakeRecord(ID);
    ASSERT_TRUE(host::DefineDataTypeFromRecord(again).IsOk());
    EXPECT_EQ(DataTypeLibInterface::GetGenericType(again.value).GetValue()->elementType,
              again.value);
    host::RemoveDataTypeOfRecord(again);
}

TEST(HostDataType, BadModuleRecordsAreRefused) {
    DataTypeRecord generic = MakeRecord("net.quorv.test.datatype.bad", DATATYPEKIND::GENERIC);
    Result<const DataType*> kind = host::DefineDataTypeFromRecord(generic);
    EXPECT_EQ(KindOf(kind), ERRORKIND::ILLEGALARGUMENT);
    EXPECT_EQ(MessageOf(kind),
              "Data type net.quorv.test.datatype.bad has kind 6; a module "
              "defines TUPLE and ENUM types only");
    DataTypeRecord noOps = MakeRecord("net.quorv.test.datatype.bad");
    noOps.operations = nullptr;
    EXPECT_EQ(MessageOf(host::DefineDataTypeFromRecord(noOps)),
              "Data type net.quorv.test.datatype.bad has no operations");
    DataTypeRecord size = MakeRecord("net.quorv.test.datatype.bad");
    size.size = 12;
    EXPECT_EQ(MessageOf(host::DefineDataTypeFromRecord(size)),
              "Data type net.quorv.test.datatype.bad says size 12 and alignment 0, its "
              "operations 8 and 4");
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType("net.quorv.test.datatype.bad"), nullptr);
}

TEST(HostDataType, HiddenEnumRecordsAreListedButFoundByNoId) {
    DataTypeRecord hidden;
    hidden.typeName = "HIDDENMODE";
    hidden.kind = DATATYPEKIND::ENUM;
    hidden.enumValues = MODE_VALUES;
    hidden.enumCount = 2;
    Result<const DataType*> r = host::DefineDataTypeFromRecord(hidden);
    ASSERT_TRUE(r.IsOk()) << ErrorToString(r.GetErrorPointer());
    EXPECT_EQ(r.GetValue()->size, 4);  // Int32 storage when the record brings no operations
    EXPECT_STREQ(r.GetValue()->typeName, "HIDDENMODE");
    EXPECT_EQ(r.GetValue()->enumCount, 2);
    DataTypeRecord second = hidden;  // a second hidden enum is no clash
    second.value = nullptr;
    ASSERT_TRUE(host::DefineDataTypeFromRecord(second).IsOk());
    std::vector<const DataType*> all = host::ListDataTypes();
    EXPECT_NE(std::find(all.begin(), all.end(), r.GetValue()), all.end());
    EXPECT_EQ(DataTypeLibInterface::GetRuntimeDataType(""), nullptr);
    bool listed = false;
    for (const auto& l : host::Host::Get().ListDataTypes()) listed |= l.typeName == "HIDDENMODE";
    EXPECT_TRUE(listed);
    host::RemoveDataTypeOfRecord(hidden);
    host::RemoveDataTypeOfRecord(second);
    all = host::ListDataTypes();
    EXPECT_EQ(std::find(all.begin(), all.end(), r.GetValue()), all.end());
}

}  // namespace
}  // namespace quorv
