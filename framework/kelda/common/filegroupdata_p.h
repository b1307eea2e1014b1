#pragma once

#include "filegroupdata.h"

#include <QDateTime>
#include <QSharedData>
#include <QString>

QT_BEGIN_NAMESPACE
class QXmlStreamReader;
QT_END_NAMESPACE

namespace Kelda {

// The record's data, shared by its three forms: the XML element
// (filegroupdataxml.cpp), the text row (filegroupdatatable.cpp) and the
// description file (filegroupdatadescription.cpp).
class FileGroupDataPrivate : public QSharedData
{
public:
    // Every form's traces name the record's own file.
    static constexpr const char *TraceSource = "framework/kelda/common/filegroupdata";

    // "yyyy-MM-dd hh:mm:ss": both the XML element and the text row write
    // times so; only the row converts to local time first.
    static QString formatTime(const QDateTime &time);
    static QDateTime parseTime(const QString &text);

    bool operator==(const FileGroupDataPrivate &other) const;

    void readElement(QXmlStreamReader &reader, KeldaError &result);
    void readFiles(QXmlStreamReader &reader);

    QString guid;
    QString fileGroupName;
    FileType fileType = FT_Unknown;
    LocationState locationState = LS_Undefined;
    QDateTime backupTime;
    QDateTime creationTime;
    QDateTime modificationTime;
    QDateTime lifeCycle;
    QString comment;
    QString creator;
    QString detail;
    QString path;
    QString teamMembership;
    QString version;
    qint32 reservedStorage = 0;
    qint32 referenceCounter = 0;
    qint32 lockCount = 0;
    FileGroupData::FileList files;
};

} // namespace Kelda
