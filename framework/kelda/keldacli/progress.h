#pragma once

#include <QElapsedTimer>
#include <QString>

#include <cstdio>

class QIODevice;

namespace Kelda {
class FileDigest;
}

namespace KeldaCli {

// A one-line progress display on stderr for work that takes a while,
// redrawn a few times a second. It stays silent unless stderr is a terminal,
// so that scripts and logs see only results and errors.
class Progress
{
public:
    // `allowed` false keeps it off even on a terminal.
    explicit Progress(const QString &label, FILE *stream = stderr, bool allowed = true);
    ~Progress();

    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // A terminal is detected; tests and callers may switch the display.
    void setEnabled(bool enabled) { m_enabled = enabled; }
    bool isEnabled() const { return m_enabled; }

    void update(const QString &status);
    // Draws the last status, if it was held back, and ends the line.
    void finish();

private:
    void draw();

    QString m_label;
    FILE *m_stream;
    bool m_enabled;
    bool m_drawn = false;
    QString m_status;
    bool m_pending = false;
    QElapsedTimer m_sinceDraw;
};

// "3.5 MiB of 10.0 MiB (35 %)"; without a known total only the amount.
QString byteProgressText(qint64 done, qint64 total);

// Copies everything from `in` to `out` in blocks, reporting to `progress`,
// and adds each block to `digest` when given. False on a read or write
// error; `error` then says which side failed.
bool copyWithProgress(QIODevice &in, QIODevice &out, qint64 total, Progress &progress, QString &error,
                      Kelda::FileDigest *digest = nullptr);

} // namespace KeldaCli
