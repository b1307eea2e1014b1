#include "payloadinflater.h"

#include "xmlseparator.h"

#include <QtEndian>

#include <zlib.h>

#include <algorithm>
#include <new>

namespace Kelda {

namespace {

constexpr int kSizeHeader = 4;
constexpr qint64 kFirstChunk = 64 * 1024;

class ZStream
{
public:
    ZStream() { m_ok = inflateInit(&m_stream) == Z_OK; }
    ~ZStream()
    {
        if (m_ok)
            inflateEnd(&m_stream);
    }
    ZStream(const ZStream &) = delete;
    ZStream &operator=(const ZStream &) = delete;

    bool ok() const { return m_ok; }
    z_stream &get() { return m_stream; }

private:
    z_stream m_stream = {};
    bool m_ok = false;
};

} // namespace

PayloadInflater::Result PayloadInflater::inflate(const QByteArray &payload, quint32 limit, QByteArray *out)
{
    if (!XmlSeparator::isPlausiblyCompressed(payload))
        return Result::NotCompressed;
    const quint32 claimed = qFromBigEndian<quint32>(payload.constData());
    if (claimed > limit)
        return Result::TooLarge;
    ZStream zlib;
    if (!zlib.ok())
        return Result::NotCompressed;
    z_stream &stream = zlib.get();
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(payload.constData() + kSizeHeader));
    stream.avail_in = uInt(payload.size() - kSizeHeader);

    // One byte beyond the limit tells a payload that passes it.
    const qint64 ceiling = qint64(limit) + 1;
    QByteArray expanded;
    qint64 produced = 0;
    try {
        expanded.resize(int(std::min<qint64>(ceiling, std::max<qint64>(claimed, kFirstChunk))));
        for (;;) {
            if (produced == expanded.size()) {
                if (expanded.size() >= ceiling)
                    return Result::TooLarge;
                expanded.resize(int(std::min<qint64>(ceiling, 2 * qint64(expanded.size()))));
            }
            stream.next_out = reinterpret_cast<Bytef *>(expanded.data() + produced);
            stream.avail_out = uInt(expanded.size() - produced);
            const int status = ::inflate(&stream, Z_NO_FLUSH);
            produced = expanded.size() - stream.avail_out;
            if (status == Z_STREAM_END)
                break;
            if (status != Z_OK && !(status == Z_BUF_ERROR && stream.avail_out == 0))
                return Result::NotCompressed;
        }
    } catch (const std::bad_alloc &) {
        return Result::TooLarge;
    }
    if (produced > qint64(limit))
        return Result::TooLarge;
    // An empty expansion is what a plain payload would give as well.
    if (produced == 0)
        return Result::NotCompressed;
    expanded.resize(int(produced));
    *out = std::move(expanded);
    return Result::Expanded;
}

} // namespace Kelda
