#pragma once

#include <initializer_list>
#include <stdexcept>

namespace Kelda {

// A list built at compile time with room for Capacity items. Like
// ExpectedElements it has nothing to destroy.
template <typename T, int N> class ConstList
{
public:
    static constexpr int Capacity = N;

    constexpr ConstList() = default;
    constexpr ConstList(std::initializer_list<T> items)
    {
        for (const T &item : items)
            Append(item);
    }

    // A list longer than Capacity does not compile when built as a constant.
    constexpr void Append(const T &item)
    {
        if (m_size == Capacity)
            throw std::length_error("ConstList: more items than Capacity");
        m_items[m_size++] = item;
    }

    constexpr int Size() const { return m_size; }
    constexpr bool IsEmpty() const { return m_size == 0; }
    constexpr const T &At(int index) const { return m_items[index]; }
    constexpr const T *begin() const { return m_items; }
    constexpr const T *end() const { return m_items + m_size; }

private:
    T m_items[N] = {};
    int m_size = 0;
};

} // namespace Kelda
