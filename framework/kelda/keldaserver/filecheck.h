#pragma once

#include <QString>

#include <optional>

namespace Kelda {

// What the archive knows of one stored file's integrity: the size and
// digest recorded when it was added (or first read, for files older than
// digests), and the outcome and time of the latest reading.
struct FileCheck
{
    enum class State { Unverified, Ok, Mismatch, Missing };

    int fileId = 0;
    QString name;
    qint64 size = -1; // -1: never read
    QString algorithm; // empty: never read
    QString digest; // lower-case hexadecimal; empty: never read
    qint64 checkedMs = 0; // UTC milliseconds of the latest reading; 0: never
    State state = State::Unverified;

    // The words stored and sent: "ok", "mismatch", "missing", "unverified".
    static QString stateText(State state);
    static std::optional<State> stateFromText(const QString &text);
};

} // namespace Kelda
