#pragma once

#include "request.h"

#include <QByteArray>

namespace Kelda {

// Turns one received payload into a request under the server's limits:
// expands it when it is compressed (never beyond the frame limit) and reads
// it with the markup bound. Pure work on bytes, for any thread.
class RequestDecoder
{
public:
    struct Limits
    {
        quint32 maxFrame = 0;
        int maxMarkup = 0;
    };

    struct Decoded
    {
        RequestReader::Result read;
        // The payload was not compressed: a client that sends one plain
        // payload does not compress, so later ones are not tried.
        bool plain = false;
        // It expanded beyond the frame limit: the connection is closed.
        bool tooLarge = false;
    };

    static Decoded decode(const QByteArray &payload, bool tryExpand, const Limits &limits);
    // Whether decoding the payload could cost more than reading its bytes
    // once: large payloads, and any that may expand.
    static bool isCostly(const QByteArray &payload, bool tryExpand);

    // Payloads up to this size are cheap to read wherever they arrive.
    static constexpr int CheapSize = 32 * 1024;
};

} // namespace Kelda
