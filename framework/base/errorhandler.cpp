#include "errorhandler.h"

#include <QDateTime>
#include <QFile>
#include <QThread>

#include <cstdio>
#include <mutex>

namespace {
constexpr quint32 kDefaultLevel = ErrorHandler::Failure;
}

// The standard mutex rather than QMutex: thread checkers see it.
struct ErrorHandler::Sink
{
    std::mutex mutex;
    TraceHook hook;
    QFile file;
};

ErrorHandler *ErrorHandler::Instance()
{
    static ErrorHandler instance;
    return &instance;
}

ErrorHandler::ErrorHandler()
    : m_level(LevelFromText(qEnvironmentVariable("KELDA_TRACE_MASK"), kDefaultLevel))
    , m_sink(new Sink)
{
    const QString path = qEnvironmentVariable("KELDA_TRACE_FILE");
    if (!path.isEmpty()) {
        m_sink->file.setFileName(path);
        if (!m_sink->file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Text))
            std::fprintf(stderr, "Cannot open trace file %s: %s; tracing to stderr\n",
                         qPrintable(path), qPrintable(m_sink->file.errorString()));
    }
}

quint32 ErrorHandler::LevelFromText(const QString &text, quint32 fallback)
{
    if (text.trimmed().isEmpty())
        return fallback;
    bool ok = false;
    const quint32 value = text.trimmed().toUInt(&ok, 0);
    return ok ? value : fallback;
}

ErrorHandler::TraceHook ErrorHandler::SetTraceHook(TraceHook hook)
{
    const std::lock_guard<std::mutex> lock(m_sink->mutex);
    std::swap(m_sink->hook, hook);
    return hook;
}

void ErrorHandler::Write(const QString &text, const char *sourceFile, int line)
{
    const std::lock_guard<std::mutex> lock(m_sink->mutex);
    if (m_sink->hook) {
        m_sink->hook(text, sourceFile, line);
        return;
    }
    QString threadName = QThread::currentThread() ? QThread::currentThread()->objectName() : QString();
    if (threadName.isEmpty())
        threadName = QString::number(reinterpret_cast<quintptr>(QThread::currentThreadId()));
    const QByteArray entry = QStringLiteral("%1 [%2] %3:%4: %5\n")
                                 .arg(QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")),
                                      threadName, QString::fromUtf8(sourceFile ? sourceFile : ""),
                                      QString::number(line), text)
                                 .toUtf8();
    if (m_sink->file.isOpen()) {
        m_sink->file.write(entry);
        m_sink->file.flush();
    } else {
        std::fwrite(entry.constData(), 1, size_t(entry.size()), stderr);
    }
}
