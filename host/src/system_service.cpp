// Memory, errors, the hasher and the critical log.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <cstdlib>
#include <mutex>

#include "host_internal.h"
#include "quorv/services.h"

namespace quorv::host {

namespace {

std::atomic<Int> g_failCountdown{0};
thread_local Error t_currentError;

std::mutex g_outputMutex;
std::function<void(std::string_view)> g_textSink;
std::atomic<Int (*)()> g_timerSource{nullptr};

std::mutex g_logMutex;
std::vector<std::string> g_criticalLog;
bool g_echo = true;

bool ShouldFail() {
    Int n = g_failCountdown.load(std::memory_order_relaxed);
    while (n > 0) {
        if (g_failCountdown.compare_exchange_weak(n, n - 1)) return n == 1;
    }
    return false;
}

void* Alloc(Int size, const SourceLocation&) {
    if (size < 0 || ShouldFail()) return nullptr;
    return std::malloc(static_cast<size_t>(size > 0 ? size : 1));
}

void Free(void* p) { std::free(p); }

void* Realloc(void* p, Int size, const SourceLocation&) {
    if (size < 0 || ShouldFail()) return nullptr;
    return std::realloc(p, static_cast<size_t>(size > 0 ? size : 1));
}

void FreeWithDestructor(void* p, void (*destructor)(void*)) {
    if (!p) return;
    if (destructor) destructor(p);
    std::free(p);
}

ErrorObject* SetCurrentError(ErrorObject* e) {
    t_currentError = Error(e);
    return e;
}

ErrorObject* GetCurrentError() { return t_currentError.Get(); }

// A streaming 64-bit hash: the order of the combined values matters.
UInt HasherInitialize() { return 0x9E3779B97F4A7C15ull; }
UInt HasherCombine(UInt state, UInt value) {
    state ^= value + 0x9E3779B97F4A7C15ull + (state << 6) + (state >> 2);
    return state * 0xff51afd7ed558ccdull;
}
UInt HasherFinalize(UInt h) {
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdull;
    h ^= h >> 33;
    h *= 0xc4ceb9fe1a85ec53ull;
    h ^= h >> 33;
    return h;
}

void ShowDiagnostics(const char*) {}

// The log keeps the message alone; the location is for a debugger.
void CriticalOutput(const char* message, const SourceLocation&) {
    HostCriticalOutput(message ? message : "");
}

// Frees a counted block allocated here, header and object in one: the destroy function of
// objects that must outlive the module that made them (errors).
void FreeObjectBlock(void* object) {
    if (object) std::free(HeaderOf(object));
}

// Monotonic nanoseconds; a test host may step its own clock instead.
Int GetTimer() {
    if (Int (*source)() = g_timerSource.load(std::memory_order_acquire)) return source();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// One line of text for a person: standard output, or the sink a caller installed.
void TextOutput(const char* text) {
    const std::string_view line(text ? text : "");
    std::lock_guard<std::mutex> lock(g_outputMutex);
    if (g_textSink) {
        g_textSink(line);
        return;
    }
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
}

const SystemInterface::Slots g_systemSlots{
    .Alloc = &Alloc,
    .Free = &Free,
    .Realloc = &Realloc,
    .PrivateFreeWithDestructor = &FreeWithDestructor,
    .SetCurrentError = &SetCurrentError,
    .GetCurrentError = &GetCurrentError,
    .PrivateHasherInitialize = &HasherInitialize,
    .PrivateHasherCombine = &HasherCombine,
    .PrivateHasherFinalize = &HasherFinalize,
    .PrivateShowSynchronizedHashMapDiagnostics = &ShowDiagnostics,
    .CriticalOutput = &CriticalOutput,
    .FreeObjectBlock = &FreeObjectBlock,
    .GetTimer = &GetTimer,
    .TextOutput = &TextOutput,
};

}  // namespace

void RegisterSystemService(Host& host) { host.RegisterService<SystemInterface>(g_systemSlots); }

void HostCriticalOutput(const std::string& message) {
    {
        std::lock_guard<std::mutex> lock(g_logMutex);
        g_criticalLog.push_back(message);
    }
    if (g_echo) std::fprintf(stderr, "quorv: %s\n", message.c_str());
}

void ClearCurrentError() { t_currentError = Error(); }

void SetCriticalEcho(bool echo) { g_echo = echo; }

bool GetCriticalEcho() { return g_echo; }

std::vector<std::string> GetCriticalLogCopy() {
    std::lock_guard<std::mutex> lock(g_logMutex);
    return g_criticalLog;
}

void ClearCriticalLogEntries() {
    std::lock_guard<std::mutex> lock(g_logMutex);
    g_criticalLog.clear();
}

void SetTextOutputSink(std::function<void(std::string_view)> sink) {
    std::lock_guard<std::mutex> lock(g_outputMutex);
    g_textSink = std::move(sink);
}

void SetTimerSource(Int (*source)()) { g_timerSource.store(source, std::memory_order_release); }

void SetFailCountdown(Int n) { g_failCountdown.store(n > 0 ? n : 0); }

Int GetFailCountdown() { return g_failCountdown.load(); }

}  // namespace quorv::host
