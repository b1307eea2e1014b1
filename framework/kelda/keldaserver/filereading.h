#pragma once

#include <QString>

namespace Kelda {

// One reading of a file, made away from the thread that commits changes;
// the state is decided when it is recorded, against the digest recorded
// then.
struct FileReading
{
    QString guid;
    QString directory; // the group's directory, as it was when read
    int fileId = 0;
    QString name;
    bool found = false; // false: missing or unreadable, see error
    qint64 size = 0;
    QString digest; // hexadecimal
    QString error;
};

} // namespace Kelda
