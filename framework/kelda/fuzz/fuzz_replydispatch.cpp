// A received message through the real dispatch path: envelope, dispatch by
// body element and the reply's parser. Any bytes must give either a result
// or a protocol error with its position, never both and never a crash.

#include "fuzzsupport.h"
#include "replyparser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    KeldaFuzz::EnsureApplication();
    const Kelda::ParsedReply parsed = Kelda::ParseReplyMessage(KeldaFuzz::Bytes(data, size));
    if (!parsed.IsValid() && parsed.lastError.has_value())
        KeldaFuzz::Fail("a protocol error also set a last error");
    if (parsed.IsValid() && (parsed.index < 0 || parsed.index >= int(Kelda::ReplyKind::Count)))
        KeldaFuzz::Fail("a read message has no dispatch position");
    if (parsed.lastError && (*parsed.lastError < 0 || *parsed.lastError > 71))
        KeldaFuzz::Fail("a stored error code lies outside the known codes");
    return 0;
}
