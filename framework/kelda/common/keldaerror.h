#pragma once

#include "keldacommonglobal.h"

#include <QString>

namespace Kelda {

/*!
    \file keldaerror.h
    \brief The error codes of the archive and their texts.
*/

/*!
    \brief The one error code of the archive, shared by server, transport and
    client.

    A server reports a failure with one of these numbers in its reply; the
    client keeps the last one (KeldaClient::GetError(), KeldaFile::GetError())
    and KeldaErrorString::Get() turns it into a sentence for the user. The
    numbers travel on the wire and in stored records and are never
    renumbered. 69 is not assigned.

    Each value's comment is its English text as KeldaErrorString::Get()
    returns it before translation.
*/
enum KeldaError : int {
    KE_NoError = 0, //!< "No error"
    KE_UnknownError = 1, //!< "Unknown error"
    KE_GuidNotFound = 2, //!< "Guid not found"
    KE_FileGroupIdNotFound = 3, //!< "File group Id not found"
    KE_NotEnoughStorage = 4, //!< "Not enough storage available"
    KE_FileGroupWriteLocked = 5, //!< "File group is write locked"
    KE_FileGroupLocked = 6, //!< "File group is locked"
    KE_OpenFileFailed = 7, //!< "Failed to open file"
    KE_CloseFileFailed = 8, //!< "Error closing file"
    KE_NoReadPermission = 9, //!< "No read permission"
    KE_ReadFileFailed = 10, //!< "Error reading file"
    KE_NoWritePermission = 11, //!< "No write permission"
    KE_WriteFileFailed = 12, //!< "Error writing file"
    KE_MoveFileGroupFailed = 13, //!< "Failed to move file group"
    KE_DeleteFileGroupFailed = 14, //!< "Failed to delete file group"
    KE_DeleteFileFailed = 15, //!< "Failed to delete file"
    KE_BackupFileGroupFailed = 16, //!< "Failed to backup file group"
    KE_ImportFileGroupFailed = 17, //!< "Failed to import file group"
    KE_ImportFileGroupIncomplete = 18, //!< "Import of file group could not be completed"
    KE_QueryFilesFailed = 19, //!< "Error while querying files"
    KE_SearchTextFailed = 20, //!< "Error while searching text"
    KE_AddLockFailed = 21, //!< "Failed to add lock"
    KE_DeleteLockFailed = 22, //!< "Failed to delete lock"
    KE_InsertLockInDbFailed = 23, //!< "Failed to insert lock in DB"
    KE_DeleteLockFromDbFailed = 24, //!< "Failed to delete lock from DB"
    KE_ReadLockFromDbFailed = 25, //!< "Failed to read lock from DB"
    KE_AddFileFailed = 26, //!< "Failed to add file"
    KE_RemoveFileFailed = 27, //!< "Failed to delete file"
    KE_InsertFileInDbFailed = 28, //!< "Failed to insert file in DB"
    KE_DeleteFileFromDbFailed = 29, //!< "Failed to delete file from DB"
    KE_ReadFileFromDbFailed = 30, //!< "Failed to read file from DB"
    KE_AddReferenceFailed = 31, //!< "Failed to add reference"
    KE_DeleteReferenceFailed = 32, //!< "Failed to delete reference"
    KE_InsertReferenceInDbFailed = 33, //!< "Failed to insert reference in DB"
    KE_DeleteReferenceFromDbFailed = 34, //!< "Failed to delete reference from DB"
    KE_ReadReferenceFromDbFailed = 35, //!< "Failed to read reference from DB"
    KE_AddFileGroupFailed = 36, //!< "Failed to add file group"
    KE_InsertFileGroupInDbFailed = 37, //!< "Failed to insert file group in DB"
    KE_DeleteFileGroupFromDbFailed = 38, //!< "Failed to delete file group from DB"
    KE_UpdateFileGroupInDbFailed = 39, //!< "Failed to update file group in DB"
    KE_ReadFileGroupFromDbFailed = 40, //!< "Failed to read file group from DB"
    KE_UnknownReplyCommand = 41, //!< "The replied command code is not known"
    KE_ReplyCommandMismatch = 42, //!< "The replied command code doesn't match the sent command"
    KE_NotConnected = 43, //!< "Client is not connected to server"
    KE_ReplyTimeout = 44, //!< "Server reply timed out"
    KE_TransferFileGroupFailed = 45, //!< "Failed to transfer file group"
    KE_TransferFileGroupIncomplete = 46, //!< "Transfer of file group could not be completed"
    KE_DatabaseNotAvailable = 47, //!< "The database is not available"
    KE_CreatePathFailed = 48, //!< "Failed to create path"
    KE_LocalTransferFailed = 49, //!< "Failed to transfer file group locally"
    KE_ImportArchiveFailed = 50, //!< "Failed to import archive"
    KE_ImportArchiveIncomplete = 51, //!< "Import of archive could not be completed"
    KE_ExportArchiveFailed = 52, //!< "Failed to export to archive"
    KE_WriteXmlFileFailed = 53, //!< "Failed to write XML file"
    KE_ReadXmlFileFailed = 54, //!< "Failed to read XML file"
    KE_FileGroupNotUpdated = 55, //!< "File group not updated"
    KE_CommunicationFailed = 56, //!< "Communication with server failed"
    KE_SoapParsingError = 57, //!< "Parsing error of Soap Message"
    KE_SoapMissingTag = 58, //!< "Soap Message missing tag: "
    KE_RemoteCopyInProgress = 59, //!< "Copying of file group data from remote server still in progress. "
    KE_ServerAlreadyAsked = 60, //!< "The server has already been asked about this file group. "
    KE_RemoteNotYetFound = 61, //!< "The file group may be remote, but has not been found yet. "
    KE_FileGroupDeleted = 62, //!< "The file group has been deleted. "
    KE_NotReadyForTransfer = 63, //!< "The file group has been found, but is not yet ready to be transfered . "
    KE_OnUnreachableTovin = 64, //!< "The file group has been found, but is on an unreachable Tovin device. "
    KE_NoCopyRequested = 65, //!< "The file group has been found, but no copy was requested. "
    KE_NotConverted = 66, //!< "The file group is not converted yet."
    KE_NotCentral = 67, //!< "The file group is not central."
    KE_ServerBusy = 68, //!< "Server is busy. Please try again later."
    KE_InvalidLocationStateForCommand = 70, //!< "The file group is an invalid location state for this command."
    KE_RemoteSystemNotConnected = 71, //!< "The required remote system is not connected."
    KE_LastError =
        KE_RemoteSystemNotConnected //!< The highest code; a larger one from a server counts as KE_UnknownError.
};

/*!
    \class Kelda::KeldaErrorString
    \brief Turns a KeldaError into a user-visible, translated sentence.

    The class only carries its static function.
*/
class KELDACOMMON_EXPORT KeldaErrorString
{
public:
    /*!
        Returns the translated text of \a code (translation context
        "QObject"). Codes 15 and 27 share the text "Failed to delete file".
        The texts of codes 58 to 65 end in a blank so that a detail can be
        appended (58 is followed by the name of the missing tag).

        Returns "Invalid error code" for 69 and for any value outside 0 to 71.
        May be called from any thread.
    */
    static QString Get(KeldaError code);
};

} // namespace Kelda
