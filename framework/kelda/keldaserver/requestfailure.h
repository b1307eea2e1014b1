#pragma once

#include "keldaerror.h"

#include <QString>

namespace Kelda {

// Why a request could not be carried out: a code of the error table and a
// sentence for the user. Thrown inside the request handlers and turned into
// the reply's Error and ErrorString; everything the request changed in the
// database is rolled back.
struct RequestFailure
{
    KeldaError code;
    QString text;
    // Lost to another server's concurrent change (deadlock, serialization):
    // worth carrying out again in a later transaction.
    bool retry = false;
    // Refused by the ownership rules rather than failed: recorded in the
    // audit trail even when the request only reads.
    bool refused = false;
};

} // namespace Kelda
