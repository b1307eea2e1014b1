#include "expectedelements.h"

namespace Kelda {

QString ExpectedElements::Joined() const
{
    QString joined;
    for (int i = 0; i < m_size; ++i) {
        if (i > 0)
            joined += QLatin1String(", ");
        if (m_entries[i].isEnd)
            joined += QLatin1Char('/');
        joined += m_entries[i].name;
    }
    return joined;
}

} // namespace Kelda
