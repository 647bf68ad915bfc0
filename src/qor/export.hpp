#pragma once

// Symbol export for the SDK's shared libraries and for plug-in libraries.
//
// QOR_EXPORT marks what a shared library offers to others (a plug-in's GetName and
// PluginInit); QOR_API marks the SDK's own declarations, exported while the SDK is built and
// imported by the programs that use it. On Windows that is dllexport/dllimport; elsewhere
// default visibility, which also holds when a library is built with hidden visibility.
#if defined(_WIN32)
#define QOR_EXPORT __declspec(dllexport)
#define QOR_IMPORT __declspec(dllimport)
#else
#define QOR_EXPORT __attribute__((visibility("default")))
#define QOR_IMPORT __attribute__((visibility("default")))
#endif

#if defined(QOR_BUILDING_SDK)
#define QOR_API QOR_EXPORT
#else
#define QOR_API QOR_IMPORT
#endif
