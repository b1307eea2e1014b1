#pragma once

#include <QtGlobal>

#if defined(FRAMEWORKBASE_LIBRARY)
#define FRAMEWORKBASE_EXPORT Q_DECL_EXPORT
#else
#define FRAMEWORKBASE_EXPORT Q_DECL_IMPORT
#endif
