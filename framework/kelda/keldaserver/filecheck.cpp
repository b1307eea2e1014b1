#include "filecheck.h"

#include <iterator>

namespace Kelda {

namespace {
const char *const kStateTexts[] = {"unverified", "ok", "mismatch", "missing"};
}

QString FileCheck::stateText(State state)
{
    return QString::fromLatin1(kStateTexts[int(state)]);
}

std::optional<FileCheck::State> FileCheck::stateFromText(const QString &text)
{
    for (int i = 0; i < int(std::size(kStateTexts)); ++i) {
        if (text == QLatin1String(kStateTexts[i]))
            return State(i);
    }
    return std::nullopt;
}

} // namespace Kelda
