#include "errorhandler.h"

#include <QDateTime>
#include <QFile>
#include <QThread>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
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

namespace {

struct FileCloser
{
    void operator()(std::FILE *file) const { std::fclose(file); }
};
// A C stream rather than a QFile: Reopen() may replace it from any thread,
// and a QObject belongs to the thread that made it.
using TraceFile = std::unique_ptr<std::FILE, FileCloser>;

// An open file, or null after telling stderr why not and where traces go
// instead.
TraceFile openTraceFile(const QString &path, const char *fallback)
{
    // Close-on-exec ("e"), as a QFile would: children must not hold it.
    TraceFile file(std::fopen(QFile::encodeName(path).constData(), "ae"));
    if (!file)
        std::fprintf(stderr, "Cannot open trace file %s: %s; tracing to %s\n", qPrintable(path), std::strerror(errno),
                     fallback);
    return file;
}

} // namespace

// The standard mutex rather than QMutex: thread checkers see it.
struct ErrorHandler::Sink
{
    std::mutex mutex;
    TraceHook hook;
    QString path;
    TraceFile file;
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
    m_sink->path = qEnvironmentVariable("KELDA_TRACE_FILE");
    if (!m_sink->path.isEmpty())
        m_sink->file = openTraceFile(m_sink->path, "stderr");
}

bool ErrorHandler::Reopen()
{
    const std::lock_guard<std::mutex> lock(m_sink->mutex);
    if (m_sink->path.isEmpty())
        return true;
    TraceFile file = openTraceFile(m_sink->path, m_sink->file ? "the file open before" : "stderr");
    if (!file)
        return false;
    m_sink->file = std::move(file);
    return true;
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
    const QByteArray entry =
        QStringLiteral("%1 [%2] %3:%4: %5\n")
            .arg(QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd hh:mm:ss.zzz")), threadName,
                 QString::fromUtf8(sourceFile ? sourceFile : ""), QString::number(line), EscapeControls(text))
            .toUtf8();
    std::FILE *stream = m_sink->file ? m_sink->file.get() : stderr;
    std::fwrite(entry.constData(), 1, size_t(entry.size()), stream);
    std::fflush(stream);
}
