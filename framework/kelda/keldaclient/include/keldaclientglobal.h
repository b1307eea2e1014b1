#pragma once

#include <QtGlobal>

#if defined(KELDACLIENT_LIBRARY)
#define KELDACLIENT_EXPORT Q_DECL_EXPORT
#else
#define KELDACLIENT_EXPORT Q_DECL_IMPORT
#endif
