#pragma once

#include <QString>

namespace Kelda {

// Reads a file once, for its SHA-256 digest and size, and optionally writes
// the bytes read to a new file at the same time: a copy is exactly what
// its digest describes, however the source changes meanwhile.
class FileCopier
{
public:
    struct Result
    {
        bool ok = false;
        // The source does not exist (any more).
        bool missing = false;
        qint64 size = 0;
        QString sha256; // lower-case hexadecimal
        QString error;
    };

    static Result digest(const QString &source);
    // target and its folders are created; an existing target is replaced
    // only once the copy is complete.
    static Result copy(const QString &source, const QString &target);

    static constexpr qint64 ChunkBytes = 1024 * 1024;

private:
    static Result read(const QString &source, const QString &target);
};

} // namespace Kelda
