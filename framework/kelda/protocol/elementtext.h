#pragma once

#include <QChar>
#include <QStringView>
#include <QVarLengthArray>

class QXmlStreamReader;

namespace Kelda {

// QXmlStreamReader::readElementText() for values that are converted at once:
// short texts need no heap allocation. The view lives until the next Read.
class ElementText
{
public:
    QStringView Read(QXmlStreamReader &reader);
    // The rules of QString::toInt(): blanks around, a sign, no group separators.
    int ReadInt(QXmlStreamReader &reader);

private:
    QStringView View() const { return QStringView(m_buffer.constData(), m_buffer.size()); }

    QVarLengthArray<QChar, 64> m_buffer;
};

} // namespace Kelda
