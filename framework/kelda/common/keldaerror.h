#pragma once

#include "keldacommonglobal.h"

#include <QString>

namespace Kelda {

// Shared by server, transport and client; the numbers travel on the wire and
// must never be renumbered. 69 is not assigned.
enum KeldaError : int {
    KE_NoError = 0,
    KE_UnknownError = 1,
    KE_GuidNotFound = 2,
    KE_FileGroupIdNotFound = 3,
    KE_NotEnoughStorage = 4,
    KE_FileGroupWriteLocked = 5,
    KE_FileGroupLocked = 6,
    KE_OpenFileFailed = 7,
    KE_CloseFileFailed = 8,
    KE_NoReadPermission = 9,
    KE_ReadFileFailed = 10,
    KE_NoWritePermission = 11,
    KE_WriteFileFailed = 12,
    KE_MoveFileGroupFailed = 13,
    KE_DeleteFileGroupFailed = 14,
    KE_DeleteFileFailed = 15,
    KE_BackupFileGroupFailed = 16,
    KE_ImportFileGroupFailed = 17,
    KE_ImportFileGroupIncomplete = 18,
    KE_QueryFilesFailed = 19,
    KE_SearchTextFailed = 20,
    KE_AddLockFailed = 21,
    KE_DeleteLockFailed = 22,
    KE_InsertLockInDbFailed = 23,
    KE_DeleteLockFromDbFailed = 24,
    KE_ReadLockFromDbFailed = 25,
    KE_AddFileFailed = 26,
    KE_RemoveFileFailed = 27,
    KE_InsertFileInDbFailed = 28,
    KE_DeleteFileFromDbFailed = 29,
    KE_ReadFileFromDbFailed = 30,
    KE_AddReferenceFailed = 31,
    KE_DeleteReferenceFailed = 32,
    KE_InsertReferenceInDbFailed = 33,
    KE_DeleteReferenceFromDbFailed = 34,
    KE_ReadReferenceFromDbFailed = 35,
    KE_AddFileGroupFailed = 36,
    KE_InsertFileGroupInDbFailed = 37,
    KE_DeleteFileGroupFromDbFailed = 38,
    KE_UpdateFileGroupInDbFailed = 39,
    KE_ReadFileGroupFromDbFailed = 40,
    KE_UnknownReplyCommand = 41,
    KE_ReplyCommandMismatch = 42,
    KE_NotConnected = 43,
    KE_ReplyTimeout = 44,
    KE_TransferFileGroupFailed = 45,
    KE_TransferFileGroupIncomplete = 46,
    KE_DatabaseNotAvailable = 47,
    KE_CreatePathFailed = 48,
    KE_LocalTransferFailed = 49,
    KE_ImportArchiveFailed = 50,
    KE_ImportArchiveIncomplete = 51,
    KE_ExportArchiveFailed = 52,
    KE_WriteXmlFileFailed = 53,
    KE_ReadXmlFileFailed = 54,
    KE_FileGroupNotUpdated = 55,
    KE_CommunicationFailed = 56,
    KE_SoapParsingError = 57,
    KE_SoapMissingTag = 58,
    KE_RemoteCopyInProgress = 59,
    KE_ServerAlreadyAsked = 60,
    KE_RemoteNotYetFound = 61,
    KE_FileGroupDeleted = 62,
    KE_NotReadyForTransfer = 63,
    KE_OnUnreachableTovin = 64,
    KE_NoCopyRequested = 65,
    KE_NotConverted = 66,
    KE_NotCentral = 67,
    KE_ServerBusy = 68,
    KE_InvalidLocationStateForCommand = 70,
    KE_RemoteSystemNotConnected = 71,
    KE_LastError = KE_RemoteSystemNotConnected
};

class KELDACOMMON_EXPORT KeldaErrorString
{
public:
    // Texts 58 to 65 end in a blank so that callers can append a detail.
    static QString Get(KeldaError code);
};

} // namespace Kelda
