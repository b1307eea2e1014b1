#include "trigramstatistics.h"

#include <QVector>

#include <algorithm>

namespace Kelda {

QStringList TrigramStatistics::trigramsOf(const QString &text)
{
    const QVector<uint> characters = text.toUcs4();
    QStringList trigrams;
    for (int i = 0; i + TrigramLength <= characters.size(); ++i) {
        const QString trigram = QString::fromUcs4(characters.constData() + i, TrigramLength);
        if (!trigrams.contains(trigram))
            trigrams.append(trigram);
    }
    return trigrams;
}

void TrigramStatistics::count(const QString &column, const QString &key)
{
    Column &counts = m_columns[column];
    ++counts.rows;
    for (const QString &trigram : trigramsOf(key))
        ++counts.rowsWith[trigram];
}

QStringList TrigramStatistics::rarest(const QString &column, const QString &key,
                                      const std::function<bool(const QString &)> &usable) const
{
    const auto found = m_columns.constFind(column);
    if (found == m_columns.constEnd() || found->rows == 0)
        return {};
    QVector<QPair<int, QString>> ranked;
    for (const QString &trigram : trigramsOf(key)) {
        if (usable(trigram))
            ranked.append({found->rowsWith.value(trigram), trigram});
    }
    std::stable_sort(ranked.begin(), ranked.end(),
                     [](const QPair<int, QString> &a, const QPair<int, QString> &b) { return a.first < b.first; });
    const int common = found->rows / CommonFraction;
    QStringList chosen;
    for (const auto &trigram : qAsConst(ranked)) {
        if (chosen.size() == MostChosen || (!chosen.isEmpty() && trigram.first > common))
            break;
        chosen.append(trigram.second);
    }
    return chosen;
}

} // namespace Kelda
