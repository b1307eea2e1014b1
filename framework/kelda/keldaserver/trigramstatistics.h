#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

#include <functional>

namespace Kelda {

// How often the trigrams of the search keys occur, estimated from a sample
// of rows, so that a search asks its trigram index only for the rarest few
// trigrams of its texts. A trigram index answers in proportion to the rows
// of every trigram it is asked for: "group 4242" among a million names
// that all begin with "group " costs the five trigrams of "group " in
// full, while "424" and "242" alone leave a few hundred rows for the exact
// test. Any choice gives the same results; only the time differs.
class TrigramStatistics
{
public:
    // Rows taken from each table: enough to tell rare trigrams from
    // common ones, few enough to be read in milliseconds.
    static constexpr int SampleRows = 2000;
    // A trigram in more sampled rows than this fraction adds more work
    // than it removes.
    static constexpr int CommonFraction = 20;
    static constexpr int MostChosen = 3;

    void clear() { m_columns.clear(); }
    // One sampled row's texts under a name: a column, or an index over
    // several columns, where a trigram costs as many rows as hold it in
    // any of them.
    void count(const QString &name, const QStringList &texts);

    // The trigrams of key to ask the index for, each passing usable: the
    // rarest under name, and up to two more that are not common. Empty
    // when the sample holds no row under name or none passes, and with
    // rareOnly also when even the rarest is common.
    QStringList rarest(const QString &name, const QString &key, const std::function<bool(const QString &)> &usable,
                       bool rareOnly = false) const;
    // Rows sampled under name.
    int rows(const QString &name) const { return m_columns.value(name).rows; }

    // The distinct trigrams of a text, in order, counted in characters.
    static QStringList trigramsOf(const QString &text);
    static constexpr int TrigramLength = 3;

private:
    struct Column
    {
        int rows = 0;
        QHash<QString, int> rowsWith;
    };
    QHash<QString, Column> m_columns;
};

} // namespace Kelda
