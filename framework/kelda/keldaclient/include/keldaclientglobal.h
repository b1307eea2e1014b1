#pragma once

#include <QtGlobal>

/*!
    \file keldaclientglobal.h
    \brief The export macro of the client library.
*/

/*!
    \def KELDACLIENT_EXPORT
    \brief Marks a class of the client library (keldaclient) as exported; an
    application sees it as imported.

    The library's own build defines KELDACLIENT_LIBRARY.
*/
#if defined(KELDACLIENT_LIBRARY)
#define KELDACLIENT_EXPORT Q_DECL_EXPORT
#else
#define KELDACLIENT_EXPORT Q_DECL_IMPORT
#endif
