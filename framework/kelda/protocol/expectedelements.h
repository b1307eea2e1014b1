#pragma once

#include <QLatin1String>
#include <QString>

#include <initializer_list>
#include <stdexcept>

namespace Kelda {

// The names one read step accepts. An entry made with EndOf() stands for the
// end tag of that element ("/Name" in error texts). Position 0 of every
// reply's list is the reply's own end tag.
//
// Lists are constants, built at compile time and never destroyed: a sender
// thread that a client abandoned may still be parsing while the process
// runs its exit-time destructors.
class ExpectedElements
{
public:
    struct Entry
    {
        constexpr Entry() = default;
        constexpr Entry(QLatin1String n, bool end = false)
            : name(n)
            , isEnd(end)
        { }
        QLatin1String name;
        bool isEnd = false;
    };

    // Enough for the dispatch list, the longest: one body element per
    // command descriptor, with room for more.
    static constexpr int Capacity = 40;

    constexpr ExpectedElements() = default;
    constexpr ExpectedElements(std::initializer_list<Entry> entries)
    {
        for (const Entry &entry : entries)
            Append(entry);
    }

    // A list longer than Capacity does not compile when built as a constant.
    constexpr void Append(Entry entry)
    {
        if (m_size == Capacity)
            throw std::length_error("ExpectedElements: more entries than Capacity");
        m_entries[m_size++] = entry;
    }

    constexpr int Size() const { return m_size; }
    constexpr bool IsEmpty() const { return m_size == 0; }
    constexpr const Entry &At(int index) const { return m_entries[index]; }
    constexpr const Entry *begin() const { return m_entries; }
    constexpr const Entry *end() const { return m_entries + m_size; }
    // The entries joined by ", ", for error texts.
    QString Joined() const;

private:
    Entry m_entries[Capacity] = {};
    int m_size = 0;
};

constexpr ExpectedElements::Entry EndOf(QLatin1String name)
{
    return ExpectedElements::Entry(name, true);
}

} // namespace Kelda
