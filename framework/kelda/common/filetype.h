#pragma once

#include "keldacommonglobal.h"

#include <QMetaType>
#include <QSharedDataPointer>
#include <QString>
#include <QVector>

namespace Kelda {

// The numbers travel on the wire and in stored records: never renumber.
// The enumerator names follow the configuration keys that offer the types.
enum FileType : int {
    FT_Unknown = 0,
    FT_TransmissionSystem_XML = 1,
    FT_TransmissionSystem_Text = 2,
    FT_TransmissionSystem_Binary = 3,
    FT_TransmissionSystem_Z2_XML = 4,
    FT_DecodedText_XML = 5,
    FT_DecodedText_Text = 6,
    FT_DecodedText_Z2_XML = 7,
    FT_ScanRecording = 8,
    FT_IfRecording = 9,
    FT_AudioRecording = 10,
    FT_Image = 11,
    FT_MissionPlanningTool = 12,
    FT_CND = 13,
    FT_Report_References = 14,
    FT_PelorResults = 15,
    FT_PCK = 16,
    FT_RAD = 17,
    FT_Report_Fragment = 18,
    FT_Tovin_IqRecording = 19,
    FT_TechnicalParameters = 20,
    FT_ShapeCollections = 21,
    FT_TrainingCollections = 22,
    FT_Last = FT_TrainingCollections
};

enum LocationState : int {
    LS_Undefined = 0,
    LS_Local = 1,
    LS_Central = 2,
    LS_BackupCopy = 3,
    LS_CentralNotMoved = 4,
    LS_RemoteLocation = 5,
    LS_Deleted = 6,
    LS_Tovin = 7,
    LS_ToBeMovedFromTovin = 8,
    LS_CentralNotConverted = 9,
    LS_RemoteNotYetFound = 10,
    LS_RemoteNotYetCentral = 11,
    LS_RemoteButOnTovin = 12,
    LS_UnknownFileGroup = 13,
    LS_Last = LS_UnknownFileGroup
};

enum LockState : int {
    LOCK_Undefined = 0,
    LOCK_Free = 1,
    LOCK_Read = 2,
    LOCK_Write = 3,
    LOCK_Last = LOCK_Write
};

class FileTypeManagerPrivate;

// The file types this installation offers to users, in a fixed order. The
// list is read once from the configuration group "KELDA" ("Type_..." keys,
// default on) when the first Instance() call builds the manager.
class KELDACOMMON_EXPORT FileTypeManager
{
public:
    // Not guarded: the first call is expected on the GUI thread.
    static FileTypeManager *Instance();

    FileTypeManager(const FileTypeManager &other);
    FileTypeManager &operator=(const FileTypeManager &other);
    // Destroying the instance makes Instance() read the configuration again.
    virtual ~FileTypeManager();

    static QString GetText(FileType type);

    int GetCount() const;
    // FT_Unknown past the end, or when no instance exists.
    FileType GetType(int index);
    QString GetTextByIndex(int index) const;
    QVector<FileType> GetTypes();

private:
    FileTypeManager();
    FileType typeAt(int index) const;

    QSharedDataPointer<FileTypeManagerPrivate> d;
    static FileTypeManager *m_pInstance;
};

class KELDACOMMON_EXPORT LocationStateString
{
public:
    static QString GetText(LocationState state);
};

class KELDACOMMON_EXPORT LockStateString
{
public:
    static QString GetText(LockState state);
};

} // namespace Kelda

Q_DECLARE_METATYPE(Kelda::FileType)
