#pragma once

/// Marks what the shared library gives to its hosts: exported from the DLL while
/// the library itself is built, imported in hosts, visible on Linux. Everything
/// that does not carry it stays hidden.
///
/// `QOR_BUILDING` is defined while the library's own sources compile, and in test
/// programs that link those sources directly.
#if defined(_WIN32)
#if defined(QOR_BUILDING)
#define QOR_API __declspec(dllexport)
#else
#define QOR_API __declspec(dllimport)
#endif
#else
#define QOR_API __attribute__((visibility("default")))
#endif
