#pragma once

#include <QtGlobal>

/*!
    \file keldaclientglobal.h
    \brief The export macro of the client libraries.
*/

/*!
    \def KELDACLIENT_EXPORT
    \brief Marks a class of the client libraries (keldaclientcore and
    keldaclientwidgets) as exported; an application sees it as imported.

    The builds of both libraries define KELDACLIENT_LIBRARY: one macro serves
    both, since on ELF platforms export and import are the same default
    visibility.
*/
#if defined(KELDACLIENT_LIBRARY)
#define KELDACLIENT_EXPORT Q_DECL_EXPORT
#else
#define KELDACLIENT_EXPORT Q_DECL_IMPORT
#endif
