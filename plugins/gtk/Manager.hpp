#pragma once

// The file manager that is compiled for, under names common to all of them. No other file knows what it is called.
//
// VORNET_NAME(X) is its type X, VORNET_INTERFACE(X) the functions of its interface X, VORNET_CALL(x) its function x,
// and VORNET_CONSTANT(X) its constant X.
#include <gio/gio.h>

#if defined(VORNET_FOR_NAUTILUS)
extern "C" {  // its header leaves the entry points without C linkage
#include <nautilus-extension.h>
}
#define VORNET_NAME(name) Nautilus##name
#define VORNET_INTERFACE(name) Nautilus##name##Interface
#define VORNET_CALL(name) nautilus_##name
#define VORNET_CONSTANT(name) NAUTILUS_##name
#elif defined(VORNET_FOR_NEMO)
#include <libnemo-extension/nemo-column-provider.h>
#include <libnemo-extension/nemo-extension-types.h>
#include <libnemo-extension/nemo-file-info.h>
#include <libnemo-extension/nemo-info-provider.h>
#include <libnemo-extension/nemo-location-widget-provider.h>
#include <libnemo-extension/nemo-menu-provider.h>
#include <libnemo-extension/nemo-name-and-desc-provider.h>
#define VORNET_NAME(name) Nemo##name
#define VORNET_INTERFACE(name) Nemo##name##Interface
#define VORNET_CALL(name) nemo_##name
#define VORNET_CONSTANT(name) NEMO_##name
#elif defined(VORNET_FOR_CAJA)
#include <libcaja-extension/caja-column-provider.h>
#include <libcaja-extension/caja-extension-types.h>
#include <libcaja-extension/caja-file-info.h>
#include <libcaja-extension/caja-info-provider.h>
#include <libcaja-extension/caja-location-widget-provider.h>
#include <libcaja-extension/caja-menu-provider.h>
#define VORNET_NAME(name) Caja##name
#define VORNET_INTERFACE(name) Caja##name##Iface
#define VORNET_CALL(name) caja_##name
#define VORNET_CONSTANT(name) CAJA_##name
#endif

namespace vornet::gtk::manager {

using ColumnProvider = VORNET_NAME(ColumnProvider);
using ColumnProviderInterface = VORNET_INTERFACE(ColumnProvider);
using FileInfo = VORNET_NAME(FileInfo);
using FileInfoInterface = VORNET_INTERFACE(FileInfo);
using InfoProvider = VORNET_NAME(InfoProvider);
using InfoProviderInterface = VORNET_INTERFACE(InfoProvider);
using MenuItem = VORNET_NAME(MenuItem);
using MenuProvider = VORNET_NAME(MenuProvider);
using MenuProviderInterface = VORNET_INTERFACE(MenuProvider);
using OperationHandle = VORNET_NAME(OperationHandle);
using OperationResult = VORNET_NAME(OperationResult);
#if !defined(VORNET_FOR_NAUTILUS)
using LocationWidgetProvider = VORNET_NAME(LocationWidgetProvider);
using LocationWidgetProviderInterface = VORNET_INTERFACE(LocationWidgetProvider);
#endif

inline constexpr OperationResult COMPLETE = VORNET_CONSTANT(OPERATION_COMPLETE);
inline constexpr OperationResult IN_PROGRESS = VORNET_CONSTANT(OPERATION_IN_PROGRESS);

}  // namespace vornet::gtk::manager
