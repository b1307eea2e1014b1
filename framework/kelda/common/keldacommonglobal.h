#pragma once

#include <QtGlobal>

#if defined(KELDACOMMON_LIBRARY)
#define KELDACOMMON_EXPORT Q_DECL_EXPORT
#else
#define KELDACOMMON_EXPORT Q_DECL_IMPORT
#endif
