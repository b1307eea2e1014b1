#include "keldaclientsoapmessage.h"

#include "keldaurl.h"
#include "keldaxml.h"

namespace Kelda {

KeldaClientSOAPMessage::KeldaClientSOAPMessage()
    : m_sRequestId(CreateGuid())
{ }

KeldaClientSOAPMessage::~KeldaClientSOAPMessage() = default;

QByteArray KeldaClientSOAPMessage::ToXml() const
{
    QByteArray bytes;
    QXmlStreamWriter writer(&bytes);
    WriteHeader(writer);
    writer.writeEndDocument();
    return bytes;
}

void KeldaClientSOAPMessage::Clear()
{
    m_sGuid.clear();
    m_sRequestId.clear();
    m_sAnnotation.clear();
    m_sApplication.clear();
}

void KeldaClientSOAPMessage::WriteHeader(QXmlStreamWriter &writer) const
{
    // The writer never picks prefixes itself: every name is written in its
    // qualified form and each namespace is declared exactly once.
    writer.setAutoFormatting(false);
    writer.writeStartDocument();
    writer.writeNamespace(Ns::Envelope, Ns::PrefixS);
    writer.writeStartElement(Tag::s(Tag::Envelope));
    writer.writeStartElement(Tag::s(Tag::Header));
    writer.writeTextElement(Tag::s(Tag::Version), Ns::SoapVersion);
    writer.writeTextElement(Tag::s(Tag::RequestId), m_sRequestId);
    writer.writeEndElement();
}

void KeldaClientSOAPMessage::WriteStartCommand(QXmlStreamWriter &writer, QLatin1String command) const
{
    writer.writeStartElement(Tag::s(Tag::Body));
    writer.writeStartElement(Tag::m(command));
    writer.writeNamespace(Ns::Message, Ns::PrefixM);
}

void KeldaClientSOAPMessage::WriteText(QXmlStreamWriter &writer, QLatin1String name, const QString &value)
{
    writer.writeTextElement(Tag::m(name), value);
}

void KeldaClientSOAPMessage::WriteStartElement(QXmlStreamWriter &writer, QLatin1String name)
{
    writer.writeStartElement(Tag::m(name));
}

} // namespace Kelda
