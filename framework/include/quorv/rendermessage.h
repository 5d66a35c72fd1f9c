#pragma once
/// Render messages, "net.quorv.render.interface.message": a log that renderers, intersectors and
/// their callers write lines into from any thread and that a user interface reads. The host
/// implements it; a module only holds the slot table (render/frame/rendermessage_slots.cpp).
/// The arguments are this system's own:
///
/// - `Alloc(loc)`: a new empty log, or null when memory is out. `Free(log)` releases it.
/// - `Init(log, capacity)`: empties the log and keeps at most `capacity` messages (0: no
///   limit); when full, the oldest message goes. Error: a negative capacity or a null log.
/// - `Reset(log)`: empties the log; the count of messages ever added starts again at 0.
/// - `AddMessage(log, severity, text)`: appends a copy of `text`. Error: a null log or text;
///   out of memory.
/// - `QueryMessages(log, first, callback, user)`: calls `callback` for each kept message whose
///   sequence number is `first` or later, oldest first, and gives the sequence number after the
///   last message (pass it as `first` next time to read only what is new). A log that can't be
///   reached (interface not bound) answers 0.
/// Every operation is thread-safe; the callback runs under the log's lock and must not call
/// the log.

#include "quorv/slots.h"

namespace quorv {

/// A log, opaque; made by the host.
struct RenderMessageLog;

/// How serious a message is.
enum class MESSAGESEVERITY : Int32 { INFO = 0, WARNING = 1, ERROR = 2 };

/// Called once per message by `QueryMessages`: its sequence number, severity and text.
using RenderMessageCallback = void (*)(void* user, Int sequence, MESSAGESEVERITY severity,
                                       const char* text);

// clang-format off
#define QUORV_RENDERMESSAGE_METHODS(M) \
    M(void, Free, (RenderMessageLog* log), (log)) \
    M(RenderMessageLog*, Alloc, (const SourceLocation& loc), (loc)) \
    M(Result<void>, Init, (RenderMessageLog* log, Int capacity), (log, capacity)) \
    M(void, Reset, (RenderMessageLog* log), (log)) \
    M(Result<void>, AddMessage, (RenderMessageLog* log, MESSAGESEVERITY severity, const char* text), \
      (log, severity, text)) \
    M(Int, QueryMessages, (const RenderMessageLog* log, Int first, RenderMessageCallback callback, \
                           void* user), (log, first, callback, user))
// clang-format on

QUORV_NONVIRTUAL_INTERFACE(RenderMessageInterface, "net.quorv.render.interface.message",
                           QUORV_RENDERMESSAGE_METHODS);

}  // namespace quorv
