#include "quorv/result.h"

#include <cstring>

#include "quorv/services.h"

namespace quorv {

namespace {

// Errors that need no memory: the answers when memory is short or the host is missing.
struct StaticError {
    ObjectHeader header;
    ErrorObject error;
};

void NoDestroy(void*) {}

StaticError g_outOfMemory{{nullptr, &NoDestroy, 0, UInt(1) << 60},
                          {ERRORKIND::OUTOFMEMORY, LiteralId("net.quorv.error.outofmemory"),
                           nullptr, {"result.cpp", 0}, nullptr}};
StaticError g_unresolved{{nullptr, &NoDestroy, 0, UInt(1) << 60},
                         {ERRORKIND::UNRESOLVED, LiteralId("net.quorv.error.unresolved"),
                          nullptr, {"result.cpp", 0}, nullptr}};

// Used when the host offers no block destroyer.
void DestroyError(void* object) { SystemInterface::Free(HeaderOf(object)); }

// Copies `text` with its NUL to `out`; returns the copy.
char* Put(char*& out, std::string_view text) {
    char* start = out;
    if (!text.empty()) std::memcpy(out, text.data(), text.size());
    out[text.size()] = 0;
    out += text.size() + 1;
    return start;
}

// One block holds header, record, message, id, file name and subject, and the host frees it:
// an error stays readable after the module that made it is unloaded.
Error Build(ERRORKIND kind, const char* id, const SourceLocation& loc, std::string_view message,
            std::string_view subject = {}) {
    std::string_view idText(id);
    std::string_view file(loc.file ? loc.file : "");
    Int bytes = static_cast<Int>(sizeof(ObjectHeader) + sizeof(ErrorObject) + message.size() +
                                 idText.size() + file.size() + subject.size() + 4);
    void* block = SystemInterface::Alloc(bytes, loc);
    if (!block) {
        if (kind == ERRORKIND::UNRESOLVED) return Error(&g_unresolved.error);
        return OutOfMemoryError();
    }
    DestroyFunc destroy = SystemInterface::slots.FreeObjectBlock;
    auto* header = new (block) ObjectHeader{nullptr, destroy ? destroy : &DestroyError, 0,
                                            REFERENCE_STEP};
    auto* e = reinterpret_cast<ErrorObject*>(header + 1);
    char* out = reinterpret_cast<char*>(e + 1);
    char* text = Put(out, message);
    const char* idCopy = Put(out, idText);
    const char* fileCopy = Put(out, file);
    const char* subjectCopy = Put(out, subject);
    *e = ErrorObject{kind, LiteralId(idCopy, LiteralIdWord(idText)),
                     message.empty() ? nullptr : text,
                     SourceLocation{loc.file ? fileCopy : nullptr, loc.line},
                     subject.empty() ? nullptr : subjectCopy};
    Error result = Error::Adopt(e);
    SystemInterface::SetCurrentError(e);
    return result;
}

}  // namespace

const char* ErrorKindId(ERRORKIND kind) {
    switch (kind) {
        case ERRORKIND::OUTOFMEMORY: return "net.quorv.error.outofmemory";
        case ERRORKIND::NULLPTR: return "net.quorv.error.nullptr";
        case ERRORKIND::ILLEGALARGUMENT: return "net.quorv.error.illegalargument";
        case ERRORKIND::ILLEGALSTATE: return "net.quorv.error.illegalstate";
        case ERRORKIND::FUNCTIONNOTIMPLEMENTED: return "net.quorv.error.functionnotimplemented";
        case ERRORKIND::UNRESOLVED: return "net.quorv.error.unresolved";
        case ERRORKIND::OTHER: break;
    }
    return "net.quorv.error.unknown";
}

std::string FormatMessage(std::string_view pattern, std::initializer_list<std::string_view> args) {
    std::string out;
    out.reserve(pattern.size() + 32);
    auto next = args.begin();
    for (char c : pattern) {
        if (c == '@' && next != args.end()) {
            out.append(*next++);
        } else {
            out.push_back(c);
        }
    }
    return out;
}

Error MakeError(ERRORKIND kind, const SourceLocation& loc, std::string_view message) {
    if (kind == ERRORKIND::OUTOFMEMORY) return OutOfMemoryError();
    return Build(kind, ErrorKindId(kind), loc, message);
}

Error MakeErrorWithId(const char* id, const SourceLocation& loc, std::string_view message,
                      std::string_view subject) {
    return Build(ERRORKIND::OTHER, id, loc, message, subject);
}

Error OutOfMemoryError() {
    SystemInterface::SetCurrentError(&g_outOfMemory.error);
    return Error(&g_outOfMemory.error);
}

std::string ErrorToString(const ErrorObject* e) {
    if (!e) return "ok";
    std::string s(e->id.View());
    if (e->message) {
        s += ": ";
        s += e->message;
    }
    if (e->subject) {
        s += ", in ";
        s += e->subject;
    }
    if (e->location.file) {
        const char* f = std::strrchr(e->location.file, '/');
        s += " (";
        s += f ? f + 1 : e->location.file;
        s += ":" + std::to_string(e->location.line) + ")";
    }
    return s;
}

Result<void> Result<void>::Unresolved() {
    return Build(ERRORKIND::UNRESOLVED, ErrorKindId(ERRORKIND::UNRESOLVED), QUORV_SOURCE_LOCATION,
                 "");
}

}  // namespace quorv
