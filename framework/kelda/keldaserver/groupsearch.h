#pragma once

#include <QString>

#include <optional>
#include <vector>

namespace Kelda {

// Criteria of a group search, already parsed. Empty texts and zero states
// mean "any"; time bounds are UTC milliseconds, inclusive, absent when open.
// A text matches as a case-insensitive substring of the group's text, with
// '%' and '_' plain characters.
struct GroupSearch
{
    QString name, comment, detail, creator, team, version, lockUser, referencingApplication;
    std::vector<int> fileTypes;
    int locationState = 0;
    int lockState = 0;
    struct Range
    {
        std::optional<qint64> min, max;
    };
    Range backup, creation, lifeCycle, modification;
};

} // namespace Kelda
