#pragma once

#include "archivestore.h"

#include <QByteArray>

namespace Kelda {

// A group's "m:FileGroup" element in a query result, built from the row
// rather than by an XML writer: a large result is mostly copies of stored
// bytes.
namespace GroupResultXml {

// The children of the element that never change after creation, as
// FileGroupData::ToHtml writes them; stored with the group.
QByteArray fixedPart(const FileGroupData &data);

// The whole element of a search row, without the file list.
void append(QByteArray &out, const SearchRow &row);

} // namespace GroupResultXml

} // namespace Kelda
