#include "elementtext.h"

#include <QCoreApplication>
#include <QLocale>
#include <QXmlStreamReader>

namespace Kelda {

namespace {

// The reader's own text for an element inside a text element.
QString ExpectedCharacterDataText()
{
    return QCoreApplication::translate("QXmlStream", "Expected character data.");
}

} // namespace

QStringView ElementText::Read(QXmlStreamReader &reader)
{
    m_buffer.clear();
    for (;;) {
        switch (reader.readNext()) {
        case QXmlStreamReader::Characters:
        case QXmlStreamReader::EntityReference: {
            const QStringRef text = reader.text();
            m_buffer.append(text.constData(), text.size());
            break;
        }
        case QXmlStreamReader::EndElement:
            return View();
        case QXmlStreamReader::Comment:
        case QXmlStreamReader::ProcessingInstruction:
            break;
        default:
            if (!reader.hasError())
                reader.raiseError(ExpectedCharacterDataText());
            return View();
        }
    }
}

int ElementText::ReadInt(QXmlStreamReader &reader)
{
    // Never destroyed, like the element lists.
    static const QLocale *const c = [] {
        auto *locale = new QLocale(QLocale::c());
        locale->setNumberOptions(QLocale::RejectGroupSeparator);
        return locale;
    }();
    return c->toInt(Read(reader));
}

} // namespace Kelda
