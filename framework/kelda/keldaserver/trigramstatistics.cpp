#include "trigramstatistics.h"

#include <QSet>
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

void TrigramStatistics::count(const QString &name, const QStringList &texts)
{
    Column &counts = m_columns[name];
    ++counts.rows;
    QSet<QString> seen;
    for (const QString &text : texts) {
        for (const QString &trigram : trigramsOf(text)) {
            if (!seen.contains(trigram)) {
                seen.insert(trigram);
                ++counts.rowsWith[trigram];
            }
        }
    }
}

QStringList TrigramStatistics::rarest(const QString &name, const QString &key,
                                      const std::function<bool(const QString &)> &usable, bool rareOnly) const
{
    const auto found = m_columns.constFind(name);
    if (found == m_columns.constEnd() || found->rows == 0)
        return {};
    struct Ranked
    {
        int rows;
        int position;
        QString trigram;
    };
    const QStringList trigrams = trigramsOf(key);
    const QVector<uint> characters = key.toUcs4();
    QVector<Ranked> ranked;
    for (const QString &trigram : trigrams) {
        if (!usable(trigram))
            continue;
        const QVector<uint> own = trigram.toUcs4();
        const auto at = std::search(characters.begin(), characters.end(), own.begin(), own.end());
        ranked.append({found->rowsWith.value(trigram), int(at - characters.begin()), trigram});
    }
    std::stable_sort(ranked.begin(), ranked.end(), [](const Ranked &a, const Ranked &b) { return a.rows < b.rows; });
    const int common = found->rows / CommonFraction;
    if (ranked.isEmpty() || (rareOnly && ranked.first().rows > common))
        return {};
    QStringList chosen;
    QVector<int> positions;
    const auto overlaps = [&positions](int position) {
        return std::any_of(positions.begin(), positions.end(),
                           [position](int other) { return qAbs(other - position) < TrigramLength; });
    };
    // Trigrams that overlap occur together: apart ones narrow more, so
    // they go first among the rare.
    for (bool apart : {true, false}) {
        for (const Ranked &candidate : qAsConst(ranked)) {
            if (chosen.size() == MostChosen)
                return chosen;
            const bool rare = chosen.isEmpty() || candidate.rows <= common;
            if (rare && !chosen.contains(candidate.trigram) && (!apart || !overlaps(candidate.position))) {
                chosen.append(candidate.trigram);
                positions.append(candidate.position);
            }
        }
    }
    return chosen;
}

} // namespace Kelda
