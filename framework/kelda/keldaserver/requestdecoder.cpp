#include "requestdecoder.h"

#include "payloadinflater.h"
#include "xmlseparator.h"

namespace Kelda {

RequestDecoder::Decoded RequestDecoder::decode(const QByteArray &payload, bool tryExpand, const Limits &limits)
{
    Decoded decoded;
    QByteArray expanded;
    const PayloadInflater::Result inflated = tryExpand ? PayloadInflater::inflate(payload, limits.maxFrame, &expanded)
                                                       : PayloadInflater::Result::NotCompressed;
    switch (inflated) {
    case PayloadInflater::Result::TooLarge:
        decoded.tooLarge = true;
        return decoded;
    case PayloadInflater::Result::Expanded:
        decoded.read = RequestReader::read(expanded, limits.maxMarkup);
        return decoded;
    case PayloadInflater::Result::NotCompressed:
        break;
    }
    decoded.plain = true;
    decoded.read = RequestReader::read(payload, limits.maxMarkup);
    return decoded;
}

bool RequestDecoder::isCostly(const QByteArray &payload, bool tryExpand)
{
    return payload.size() > CheapSize || (tryExpand && XmlSeparator::isPlausiblyCompressed(payload));
}

} // namespace Kelda
