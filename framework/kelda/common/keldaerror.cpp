#include "keldaerror.h"

#include <QObject>

#include <iterator>

namespace Kelda {

namespace {

// Indexed by code; nullptr marks the unassigned 69.
const char *const kErrorTexts[] = {
    QT_TRANSLATE_NOOP("QObject", "No error"),
    QT_TRANSLATE_NOOP("QObject", "Unknown error"),
    QT_TRANSLATE_NOOP("QObject", "Guid not found"),
    QT_TRANSLATE_NOOP("QObject", "File group Id not found"),
    QT_TRANSLATE_NOOP("QObject", "Not enough storage available"),
    QT_TRANSLATE_NOOP("QObject", "File group is write locked"),
    QT_TRANSLATE_NOOP("QObject", "File group is locked"),
    QT_TRANSLATE_NOOP("QObject", "Failed to open file"),
    QT_TRANSLATE_NOOP("QObject", "Error closing file"),
    QT_TRANSLATE_NOOP("QObject", "No read permission"),
    QT_TRANSLATE_NOOP("QObject", "Error reading file"),
    QT_TRANSLATE_NOOP("QObject", "No write permission"),
    QT_TRANSLATE_NOOP("QObject", "Error writing file"),
    QT_TRANSLATE_NOOP("QObject", "Failed to move file group"),
    QT_TRANSLATE_NOOP("QObject", "Failed to delete file group"),
    QT_TRANSLATE_NOOP("QObject", "Failed to delete file"),
    QT_TRANSLATE_NOOP("QObject", "Failed to backup file group"),
    QT_TRANSLATE_NOOP("QObject", "Failed to import file group"),
    QT_TRANSLATE_NOOP("QObject", "Import of file group could not be completed"),
    QT_TRANSLATE_NOOP("QObject", "Error while querying files"),
    QT_TRANSLATE_NOOP("QObject", "Error while searching text"),
    QT_TRANSLATE_NOOP("QObject", "Failed to add lock"),
    QT_TRANSLATE_NOOP("QObject", "Failed to delete lock"),
    QT_TRANSLATE_NOOP("QObject", "Failed to insert lock in DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to delete lock from DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to read lock from DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to add file"),
    // Deliberately the same text as 15.
    QT_TRANSLATE_NOOP("QObject", "Failed to delete file"),
    QT_TRANSLATE_NOOP("QObject", "Failed to insert file in DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to delete file from DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to read file from DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to add reference"),
    QT_TRANSLATE_NOOP("QObject", "Failed to delete reference"),
    QT_TRANSLATE_NOOP("QObject", "Failed to insert reference in DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to delete reference from DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to read reference from DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to add file group"),
    QT_TRANSLATE_NOOP("QObject", "Failed to insert file group in DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to delete file group from DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to update file group in DB"),
    QT_TRANSLATE_NOOP("QObject", "Failed to read file group from DB"),
    QT_TRANSLATE_NOOP("QObject", "The replied command code is not known"),
    QT_TRANSLATE_NOOP("QObject", "The replied command code doesn't match the sent command"),
    QT_TRANSLATE_NOOP("QObject", "Client is not connected to server"),
    QT_TRANSLATE_NOOP("QObject", "Server reply timed out"),
    QT_TRANSLATE_NOOP("QObject", "Failed to transfer file group"),
    QT_TRANSLATE_NOOP("QObject", "Transfer of file group could not be completed"),
    QT_TRANSLATE_NOOP("QObject", "The database is not available"),
    QT_TRANSLATE_NOOP("QObject", "Failed to create path"),
    QT_TRANSLATE_NOOP("QObject", "Failed to transfer file group locally"),
    QT_TRANSLATE_NOOP("QObject", "Failed to import archive"),
    QT_TRANSLATE_NOOP("QObject", "Import of archive could not be completed"),
    QT_TRANSLATE_NOOP("QObject", "Failed to export to archive"),
    QT_TRANSLATE_NOOP("QObject", "Failed to write XML file"),
    QT_TRANSLATE_NOOP("QObject", "Failed to read XML file"),
    QT_TRANSLATE_NOOP("QObject", "File group not updated"),
    QT_TRANSLATE_NOOP("QObject", "Communication with server failed"),
    QT_TRANSLATE_NOOP("QObject", "Parsing error of Soap Message"),
    // 58 to 65 end in a blank: callers append the missing tag or a detail.
    QT_TRANSLATE_NOOP("QObject", "Soap Message missing tag: "),
    QT_TRANSLATE_NOOP("QObject", "Copying of file group data from remote server still in progress. "),
    QT_TRANSLATE_NOOP("QObject", "The server has already been asked about this file group. "),
    QT_TRANSLATE_NOOP("QObject", "The file group may be remote, but has not been found yet. "),
    QT_TRANSLATE_NOOP("QObject", "The file group has been deleted. "),
    QT_TRANSLATE_NOOP("QObject", "The file group has been found, but is not yet ready to be transfered . "),
    QT_TRANSLATE_NOOP("QObject", "The file group has been found, but is on an unreachable Tovin device. "),
    QT_TRANSLATE_NOOP("QObject", "The file group has been found, but no copy was requested. "),
    QT_TRANSLATE_NOOP("QObject", "The file group is not converted yet."),
    QT_TRANSLATE_NOOP("QObject", "The file group is not central."),
    QT_TRANSLATE_NOOP("QObject", "Server is busy. Please try again later."),
    nullptr,
    QT_TRANSLATE_NOOP("QObject", "The file group is an invalid location state for this command."),
    QT_TRANSLATE_NOOP("QObject", "The required remote system is not connected."),
};

static_assert(std::size(kErrorTexts) == KE_LastError + 1, "one text slot per error code");

const char kInvalidErrorCode[] = QT_TRANSLATE_NOOP("QObject", "Invalid error code");

} // namespace

QString KeldaErrorString::Get(KeldaError code)
{
    const int index = code;
    if (index < 0 || index > KE_LastError || !kErrorTexts[index])
        return QObject::tr(kInvalidErrorCode);
    return QObject::tr(kErrorTexts[index]);
}

} // namespace Kelda
