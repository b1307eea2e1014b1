// The file group record read from any XML, and its table form from any
// texts. The first input byte chooses the reading.

#include "filegroupdata.h"
#include "fuzzsupport.h"

#include <QStringList>
#include <QXmlStreamReader>

namespace {

constexpr int Columns = 16;

void ReadXml(const QByteArray &bytes)
{
    QXmlStreamReader reader(bytes);
    Kelda::FileGroupData record;
    record.FromHtml(reader);
    QStringList row;
    record.ToStringList(row);
    if (row.size() != Columns)
        KeldaFuzz::Fail("a record read from XML does not fill one table row");
}

QStringList TableOf(const std::vector<Kelda::FileGroupData> &records)
{
    QStringList table;
    for (const Kelda::FileGroupData &record : records)
        record.ToStringList(table);
    return table;
}

// Texts separated by line feeds, laid out as table rows. Values the table
// cannot show (a location state without a text) are shown as a text that
// reads back as the default, so the table is only stable from its second
// round trip on.
void ReadTable(const QByteArray &bytes)
{
    const QStringList texts = QString::fromUtf8(bytes).split(QLatin1Char('\n'));
    const std::vector<Kelda::FileGroupData> records = Kelda::FileGroupData::fromStringList(texts);
    if (records.size() != size_t(texts.size() / Columns))
        KeldaFuzz::Fail("fromStringList did not make one record per complete row");
    const QStringList normalised = TableOf(Kelda::FileGroupData::fromStringList(TableOf(records)));
    if (TableOf(Kelda::FileGroupData::fromStringList(normalised)) != normalised)
        KeldaFuzz::Fail("the table form still changes after two round trips");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    KeldaFuzz::EnsureApplication();
    const QByteArray rest = KeldaFuzz::Bytes(data + 1, size - 1);
    if (data[0] & 1)
        ReadTable(rest);
    else
        ReadXml(rest);
    return 0;
}
