#pragma once

#include "keldacommonglobal.h"

#include <QMetaType>
#include <QSharedDataPointer>
#include <QString>
#include <QVector>

/*!
    \file filetype.h
    \brief File types, location states and lock states, with their texts.
*/

namespace Kelda {

/*!
    \brief What a file group holds.

    The number travels on the wire and in stored records as a decimal and is
    never renumbered. Each value's comment gives its display text
    (FileTypeManager::GetText()) and the boolean key of the configuration
    group "KELDA" that offers it in the dialogs. The enumerator names follow
    those keys, not the texts.
*/
enum FileType : int {
    FT_Unknown = 0, //!< "Unknown"; never offered.
    FT_TransmissionSystem_XML =
        1, //!< "Transmission System (XML)"; offered unless "Type_TransmissionSystem_XML" is false.
    FT_TransmissionSystem_Text =
        2, //!< "Transmission System (Text)"; offered unless "Type_TransmissionSystem_Text" is false.
    FT_TransmissionSystem_Binary =
        3, //!< "Transmission System (Binary)"; offered unless "Type_TransmissionSystem_Binary" is false.
    FT_TransmissionSystem_Z2_XML =
        4, //!< "Transmission System (Z2 XML)"; offered unless "Type_TransmissionSystem_Z2_XML" is false.
    FT_DecodedText_XML = 5, //!< "Decoded Text (XML)"; offered unless "Type_DecodedText_XML" is false.
    FT_DecodedText_Text = 6, //!< "Decoded Text (Text)"; offered unless "Type_DecodedText_Text" is false.
    FT_DecodedText_Z2_XML = 7, //!< "Decoded Text (Z2 XML)"; offered unless "Type_DecodedText_Z2_XML" is false.
    FT_ScanRecording = 8, //!< "Scan Recording"; offered unless "Type_ScanRecording" is false.
    FT_IfRecording = 9, //!< "IF Recording"; offered unless "Type_IfRecording" is false.
    FT_AudioRecording = 10, //!< "Audio Recording"; offered unless "Type_AudioRecording" is false.
    FT_Image = 11, //!< "Image"; offered unless "Type_Image" is false.
    FT_MissionPlanningTool =
        12, //!< "Propagation Calculation Tool"; offered unless "Type_MissionPlanningTool" is false.
    FT_CND = 13, //!< "Communication Network Diagram"; offered unless "Type_CND" is false.
    FT_Report_References = 14, //!< "Report File Reference List"; offered unless "Type_Report_References" is false.
    FT_PelorResults = 15, //!< "Pelor Results"; offered unless "Type_PelorResults" is false.
    FT_PCK = 16, //!< "PCK File"; never offered.
    FT_RAD = 17, //!< "RAD File"; offered unless "Type_RAD" is false.
    FT_Report_Fragment = 18, //!< "Report Fragment"; offered unless "Type_Report_Fragment" is false.
    FT_Tovin_IqRecording = 19, //!< "Tovin IQ Recording"; offered unless "Type_Tovin_IqRecording" is false.
    FT_TechnicalParameters = 20, //!< "Technical Parameters"; offered unless "Type_TechnicalParameters" is false.
    FT_ShapeCollections = 21, //!< "Shape Collections"; offered unless "Type_ShapeCollections" is false.
    FT_TrainingCollections = 22, //!< "Training Collections"; offered unless "Type_TrainingCollections" is false.
    FT_Last = FT_TrainingCollections //!< The highest file type.
};

/*!
    \brief Where the data of a file group resides.

    Transmitted as a decimal number. Each value's comment is its text from
    LocationStateString::GetText().
*/
enum LocationState : int {
    LS_Undefined = 0, //!< "Undefined"
    LS_Local = 1, //!< "Local"
    LS_Central = 2, //!< "Central"
    LS_BackupCopy = 3, //!< "Backup copy"
    LS_CentralNotMoved = 4, //!< "Central not moved"
    LS_RemoteLocation = 5, //!< "Remote location"
    LS_Deleted = 6, //!< "Deleted"
    LS_Tovin = 7, //!< "Tovin"
    LS_ToBeMovedFromTovin = 8, //!< "To be moved from Tovin"
    LS_CentralNotConverted = 9, //!< "Central not converted"
    LS_RemoteNotYetFound = 10, //!< "Remote not yet found"
    LS_RemoteNotYetCentral = 11, //!< "Remote not yet central"
    LS_RemoteButOnTovin = 12, //!< "Remote but on Tovin"
    LS_UnknownFileGroup = 13, //!< "Unknown file group"
    LS_Last = LS_UnknownFileGroup //!< The highest location state.
};

/*!
    \brief The lock a client asks for when it requests a file, and the lock
    state a query can filter on.

    Transmitted as a decimal number. Each value's comment is its text from
    LockStateString::GetText().
*/
enum LockState : int {
    LOCK_Undefined = 0, //!< "Undefined"
    LOCK_Free = 1, //!< "Free"
    LOCK_Read = 2, //!< "Read"
    LOCK_Write = 3, //!< "Write"
    LOCK_Last = LOCK_Write //!< The highest lock state.
};

class FileTypeManagerPrivate;

/*!
    \class Kelda::FileTypeManager
    \brief The file types this installation offers to its users.

    The dialogs list the offered types in a fixed order: ascending, without
    FT_Unknown and FT_PCK, and without every type whose "Type_..." key in the
    configuration group "KELDA" is false. The list is read once, when the
    first Instance() call builds the process-wide manager, and does not
    change while that manager lives; later changes of the configuration are
    not seen.

    The library never destroys the manager. Instance() is not guarded: make
    the first call on the GUI thread (the dialogs do); every other function
    only reads.
*/
class KELDACOMMON_EXPORT FileTypeManager
{
public:
    /*!
        Returns the process-wide manager, building it (and reading the
        configuration) on the first call. The caller does not own it.
    */
    static FileTypeManager *Instance();

    //! Copies the offered list of \a other.
    FileTypeManager(const FileTypeManager &other);
    //! Copies the offered list of \a other.
    FileTypeManager &operator=(const FileTypeManager &other);
    /*!
        Destroys the manager. Destroying the instance that Instance() returned
        makes the next Instance() call read the configuration again; until
        then GetType() answers FT_Unknown on every remaining copy.
    */
    virtual ~FileTypeManager();

    /*!
        Returns the translated display text of \a type (translation context
        "QObject"), for any type, offered or not; "Invalid file type" for a
        value outside the enumeration.
    */
    static QString GetText(FileType type);

    //! Returns the number of offered types.
    int GetCount() const;
    /*!
        Returns the offered type at \a index, or FT_Unknown when \a index is
        not below GetCount() or no instance exists. Negative indices are not
        checked: stay within 0 and GetCount() - 1.
    */
    FileType GetType(int index);
    //! Returns GetText() of GetType(\a index): "Unknown" past the end.
    QString GetTextByIndex(int index) const;
    //! Returns a copy of the offered types, in their order.
    QVector<FileType> GetTypes();

private:
    FileTypeManager();

    QSharedDataPointer<FileTypeManagerPrivate> d;
    static FileTypeManager *m_pInstance;
};

/*!
    \class Kelda::LocationStateString
    \brief Turns a LocationState into its translated text.
*/
class KELDACOMMON_EXPORT LocationStateString
{
public:
    /*!
        Returns the translated text of \a state (translation context
        "QObject"); "Invalid location state" for 14 and above and for negative
        values.
    */
    static QString GetText(LocationState state);
};

/*!
    \class Kelda::LockStateString
    \brief Turns a LockState into its translated text.
*/
class KELDACOMMON_EXPORT LockStateString
{
public:
    /*!
        Returns the translated text of \a state (translation context
        "QObject"); "Invalid lock state" for any value outside 0 to 3.
    */
    static QString GetText(LockState state);
};

} // namespace Kelda

Q_DECLARE_METATYPE(Kelda::FileType)
