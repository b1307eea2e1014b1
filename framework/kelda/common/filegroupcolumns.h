#pragma once

/*!
    \file filegroupcolumns.h
    \brief The columns of a file group's text row.
*/

namespace Kelda {

/*!
    \brief The columns of a file group's text row, in their order.

    FileGroupData::GetHeaders() and FileGroupData::ToStringList() write them
    in this order, FileGroupData::fromStringList() reads them back, and the
    tables of KeldaClient::QueryFiles() and KeldaClient::queryFileGroupsSg()
    are made of such rows. The order never changes; the Guid is deliberately
    the last column.
*/
namespace FileGroupColumn {

/*!
    \brief The position of a value in a row of FileGroupColumn::Count texts.
*/
enum Column : int {
    Name, //!< "File group name"
    FileType, //!< "File type": the display text of the file type.
    LocationState, //!< "Location state": the text of the location state.
    BackupTime, //!< "Backup time", local time.
    CreationTime, //!< "Creation time", local time.
    ModificationTime, //!< "Modification time", local time.
    LifeCycle, //!< "Life cycle": the end of the group's life, local time.
    Comment, //!< "Comment"
    Creator, //!< "Creator"
    Detail, //!< "Detail"
    Team, //!< "Team": the team membership.
    Version, //!< "Version"
    ReservedStorage, //!< "Reserved storage", decimal.
    ReferenceCounter, //!< "Reference count", decimal.
    LockCount, //!< "Lock count", decimal.
    Guid, //!< "Guid": the group's GUID.
    Count //!< The number of columns: 16.
};

} // namespace FileGroupColumn

} // namespace Kelda
