#include "errorhandler.h"

#include <QDateTime>
#include <QFile>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <mutex>

namespace {
constexpr quint32 kDefaultLevel = ErrorHandler::Failure;
}

QString ErrorHandler::EscapeControls(const QString &text)
{
    const auto isControl = [](QChar c) {
        const ushort u = c.unicode();
        return u < 0x20 || (u >= 0x7F && u < 0xA0) || u == 0x2028 || u == 0x2029;
    };
    if (std::none_of(text.cbegin(), text.cend(), isControl))
        return text;
    QString escaped;
    escaped.reserve(text.size() + 16);
    for (const QChar c : text) {
        if (!isControl(c)) {
            escaped += c;
        } else if (c == QLatin1Char('\n')) {
            escaped += QLatin1String("\\n");
        } else if (c == QLatin1Char('\r')) {
            escaped += QLatin1String("\\r");
        } else if (c == QLatin1Char('\t')) {
            escaped += QLatin1String("\\t");
        } else {
            escaped += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
        }
    }
    return escaped;
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
                                      QString::number(line), EscapeControls(text))
                                 .toUtf8();
    if (m_sink->file.isOpen()) {
        m_sink->file.write(entry);
        m_sink->file.flush();
    } else {
        std::fwrite(entry.constData(), 1, size_t(entry.size()), stderr);
    }
}
