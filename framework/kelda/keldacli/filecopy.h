#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>

namespace KeldaCli {

// How a copy reaches its destination. Either way the destination's name
// shows only a complete copy, never a partial one.
enum class CopyMode {
    // Flushed to disk before it takes its name: a file about to be
    // registered in the archive must survive a crash once registered.
    Durable,
    // Renamed into place without a flush, as cp does: a fetched copy can be
    // fetched again.
    Plain
};

// Copies `from` to `to`, replacing it, through `buffer`, and adds each block
// to `copied` as it is written. With `digest`, also sets it to the SHA-256
// (lower-case hex) of what was written, hashed from the same buffer so that
// the file is read once. Returns an empty string on success, else what
// failed; nothing is left at `to` then. Safe to call from any thread.
QString copyFile(const QString &from, const QString &to, CopyMode mode, QByteArray &buffer, std::atomic<qint64> &copied,
                 QByteArray *digest = nullptr);

} // namespace KeldaCli
