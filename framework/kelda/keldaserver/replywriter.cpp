#include "replywriter.h"

#include "keldaxml.h"

namespace Kelda {

ReplyWriter::ReplyWriter(const QString &bodyElement, const QString &requestId)
    : m_writer(&m_bytes)
{
    m_writer.setAutoFormatting(false);
    m_writer.writeStartDocument();
    m_writer.writeNamespace(Ns::Envelope, Ns::PrefixS);
    m_writer.writeStartElement(Tag::s(Tag::Envelope));
    m_writer.writeStartElement(Tag::s(Tag::Header));
    m_writer.writeTextElement(Tag::s(Tag::Version), Ns::SoapVersion);
    m_writer.writeTextElement(Tag::s(Tag::RequestId), requestId);
    m_writer.writeEndElement();
    m_writer.writeStartElement(Tag::s(Tag::Body));
    m_writer.writeStartElement(QLatin1String("m:") + bodyElement);
    m_writer.writeNamespace(Ns::Message, Ns::PrefixM);
}

QString ReplyWriter::replyElement(const QString &command)
{
    return command + QLatin1String("Reply");
}

void ReplyWriter::writeText(QLatin1String name, const QString &value)
{
    m_writer.writeTextElement(Tag::m(name), value);
}

void ReplyWriter::writeNumber(QLatin1String name, qint64 value)
{
    writeText(name, QString::number(value));
}

void ReplyWriter::writeBool(QLatin1String name, bool value)
{
    writeText(name, value ? QStringLiteral("true") : QStringLiteral("false"));
}

void ReplyWriter::writeStartElement(QLatin1String name)
{
    m_writer.writeStartElement(Tag::m(name));
}

void ReplyWriter::writeEndElement()
{
    m_writer.writeEndElement();
}

void ReplyWriter::writeStatus(int error, const QString &errorString)
{
    writeNumber(Tag::Error, error);
    if (!errorString.isEmpty())
        writeText(Tag::ErrorString, errorString);
}

QByteArray ReplyWriter::finish()
{
    m_writer.writeEndDocument();
    return m_bytes;
}

QByteArray ReplyWriter::status(const QString &command, const QString &requestId, int error,
                               const QString &errorString)
{
    ReplyWriter writer(replyElement(command), requestId);
    writer.writeStatus(error, errorString);
    return writer.finish();
}

} // namespace Kelda
