#include "commanddescriptors.h"

namespace Kelda {

// The table is checked here, once, while the library builds. A failing
// check's note shows the position of the first entry at fault.
static_assert(CommandCount == int(ReplyKind::Count), "one descriptor per ReplyKind, none more");
static_assert(FirstOutOfOrder(CommandDescriptors) == -1, "every descriptor at the position of its ReplyKind");
static_assert(FirstDuplicateElement(CommandDescriptors) == -1, "no request or reply element named twice");
static_assert(FirstIncomplete(CommandDescriptors) == -1, "every descriptor complete for its exchange and result");
static_assert(CommandCount <= ExpectedElements::Capacity, "the dispatch list holds every reply element");

const CommandDescriptor *FindCommand(QStringView request)
{
    for (const CommandDescriptor &command : CommandDescriptors) {
        if (command.exchange == Exchange::Command && request == command.request)
            return &command;
    }
    return nullptr;
}

} // namespace Kelda
