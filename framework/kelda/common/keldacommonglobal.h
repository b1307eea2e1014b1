#pragma once

#include <QtGlobal>

/*!
    \file keldacommonglobal.h
    \brief The export macro of the vocabulary library.
*/

/*!
    \namespace Kelda
    \brief Every class, enumeration and function of the archive client.
*/

/*!
    \def KELDACOMMON_EXPORT
    \brief Marks a class or function of the vocabulary library (keldacommon)
    as exported; an application sees it as imported.

    The library's own build defines KELDACOMMON_LIBRARY.
*/
#if defined(KELDACOMMON_LIBRARY)
#define KELDACOMMON_EXPORT Q_DECL_EXPORT
#else
#define KELDACOMMON_EXPORT Q_DECL_IMPORT
#endif
