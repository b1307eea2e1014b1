#include "replywriter.h"

#include "keldaxml.h"

#include <utility>

namespace Kelda {

ReplyWriter::ReplyWriter(const QString &bodyElement, const QString &requestId)
    : m_buffer(&m_bytes)
    , m_writer(&m_buffer)
{
    m_buffer.open(QIODevice::WriteOnly);
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
    writeText(name, value ? Flag::True : Flag::False);
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

void ReplyWriter::writeRecord(const CommandDescriptor &command, const QStringList &values)
{
    writeStartElement(command.record.At(0).name);
    for (int field = 1; field < command.record.Size(); ++field)
        writeText(command.record.At(field).name, values.value(field - 1));
    writeEndElement();
}

void ReplyWriter::writeRaw(const QByteArray &bytes)
{
    // Empty text closes a pending start tag, so the bytes land inside it.
    m_writer.writeCharacters(QString());
    m_writer.device()->write(bytes);
}

void ReplyWriter::appendTextElement(QByteArray &out, const QByteArray &qualifiedName, const QString &value)
{
    out += '<';
    out += qualifiedName;
    out += '>';
    const QByteArray utf8 = value.toUtf8();
    const char *run = utf8.constData();
    const char *const end = run + utf8.size();
    for (const char *c = run; c != end; ++c) {
        const char *entity = nullptr;
        switch (*c) {
        case '&':
            entity = "&amp;";
            break;
        case '<':
            entity = "&lt;";
            break;
        case '>':
            entity = "&gt;";
            break;
        case '"':
            entity = "&quot;";
            break;
        case '\r':
            entity = "&#13;";
            break;
        default:
            continue;
        }
        out.append(run, int(c - run));
        out.append(entity);
        run = c + 1;
    }
    out.append(run, int(end - run));
    out += "</";
    out += qualifiedName;
    out += '>';
}

void ReplyWriter::appendPlainElement(QByteArray &out, const QByteArray &qualifiedName, const QByteArray &value)
{
    out += '<';
    out += qualifiedName;
    out += '>';
    out += value;
    out += "</";
    out += qualifiedName;
    out += '>';
}

QByteArray ReplyWriter::takeBytes()
{
    // A pending start tag is closed first: its ">" belongs to these bytes.
    m_writer.writeCharacters(QString());
    const QByteArray taken = std::exchange(m_buffer.buffer(), QByteArray());
    m_buffer.seek(0);
    return taken;
}

QByteArray ReplyWriter::finish()
{
    m_writer.writeEndDocument();
    return m_bytes;
}

QByteArray ReplyWriter::status(const QString &command, const QString &requestId, int error, const QString &errorString)
{
    ReplyWriter writer(replyElement(command), requestId);
    writer.writeStatus(error, errorString);
    return writer.finish();
}

} // namespace Kelda
