#pragma once

#include <QByteArray>
#include <QtGlobal>

namespace Kelda {

// Expands a payload in qCompress format (the expanded size as a big-endian
// quint32, then a zlib stream) without trusting its size header: the output
// grows with what the stream really yields and the expansion stops as soon
// as it would pass the limit.
class PayloadInflater
{
public:
    enum class Result {
        Expanded, // *out holds the expanded payload
        NotCompressed, // not a qCompress payload, or a corrupt one
        TooLarge // expands, or claims to expand, beyond the limit
    };

    static Result inflate(const QByteArray &payload, quint32 limit, QByteArray *out);
};

} // namespace Kelda
