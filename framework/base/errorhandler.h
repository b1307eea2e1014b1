#pragma once

#include "baseglobal.h"

#include <QString>

#include <atomic>
#include <functional>

// The host framework's error handler: owns the level mask that decides which
// traces are written, and where they go.
//
// The mask starts from the environment variable KELDA_TRACE_MASK (decimal, or
// hexadecimal with a 0x prefix; default 0x20). Traces go to stderr, or to the
// file named by KELDA_TRACE_FILE when that is set (appended to; Reopen()
// starts a new file under that name once log rotation has moved the old one).
class FRAMEWORKBASE_EXPORT ErrorHandler
{
public:
    enum Level : quint32 {
        Failure = 0x20, // failures
        Detail = 0x40 // routine detail, function entry and exit
    };

    // Receives every trace that passes the mask instead of the sink; for tests.
    using TraceHook = std::function<void(const QString &text, const char *sourceFile, int line)>;

    static ErrorHandler *Instance();

    quint32 GetLevel() const { return m_level.load(std::memory_order_relaxed); }
    void SetLevel(quint32 level) { m_level.store(level, std::memory_order_relaxed); }
    bool IsEnabled(quint32 bits) const { return (GetLevel() & bits) != 0; }

    // Installs a hook (an empty function removes it); returns the previous one.
    TraceHook SetTraceHook(TraceHook hook);

    // Writes one trace line. Control characters in the text are written
    // escaped ("\\n", "\\u001b"): texts may carry what a client sent, and
    // must not forge lines or steer a terminal. A hook gets the text as it
    // is.
    void Write(const QString &text, const char *sourceFile, int line);
    static QString EscapeControls(const QString &text);

    // Opens the trace file named by KELDA_TRACE_FILE again, so that a file
    // that log rotation renamed or deleted is followed by a new one under the
    // same name. Safe from any thread; no trace is lost or split between the
    // files. When the file cannot be opened, traces keep going where they
    // went, a note says why on stderr, and the result is false. Without a
    // trace file there is nothing to do and the result is true.
    bool Reopen();

    static quint32 LevelFromText(const QString &text, quint32 fallback);

private:
    ErrorHandler();
    ErrorHandler(const ErrorHandler &) = delete;
    ErrorHandler &operator=(const ErrorHandler &) = delete;

    struct Sink;
    std::atomic<quint32> m_level;
    Sink *m_sink;
};
