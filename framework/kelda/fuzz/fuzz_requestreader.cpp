// The archive server's request reader with any document: it must answer
// with a request or a reason, never crash or hang.

#include "fuzzsupport.h"
#include "request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    KeldaFuzz::EnsureApplication();
    const Kelda::RequestReader::Result result = Kelda::RequestReader::read(KeldaFuzz::Bytes(data, size));
    if (!result.ok && result.error.isEmpty())
        KeldaFuzz::Fail("a refused request carries no reason");
    if (result.ok && result.request.command.isEmpty())
        KeldaFuzz::Fail("an accepted request has no command");
    return 0;
}
