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

// Who may include these headers.
#if defined(_MSVC_LANG) ? _MSVC_LANG < 201703L : __cplusplus < 201703L
#error "qor's headers are C++17: compile with -std=c++17 or /std:c++17, or a later language."
#endif
#if !defined(_WIN64) && !defined(__LP64__)
#error "qor is a library for 64-bit programs."
#endif

// Exported classes hold members of types that are not exported (4251) or derive from one (4275),
// which is safe where library and host come from one compiler; queue items are padded on
// purpose (4324).
#if defined(_MSC_VER)
#pragma warning(disable : 4251 4275 4324)
#endif

/// The number of the interface, in a name. It grows, here and in abi.cpp, when a host that was
/// built before must not meet the library that is built now: when the layout of a class, a
/// virtual table, a signature or the meaning of a call has changed. What is only added leaves
/// it as it is.
///
/// The library exports the name, and every program that includes these headers asks for the one
/// that it saw. A program of another number neither links nor starts, and the system says that
/// `qorAbi_1` is missing. That costs a program one pointer; with Visual Studio, nothing.
extern "C" QOR_API const char qorAbi_1;

#if defined(QOR_BUILDING)
#elif defined(_MSC_VER)
#pragma comment(linker, "/include:__imp_qorAbi_1")
#elif defined(_WIN32)
extern "C" const char* const __imp_qorAbi_1; // in the import table, whose addresses are constants
namespace qor_abi {
__attribute__((used)) inline const void* const kDemanded = &__imp_qorAbi_1;
}
#else
namespace qor_abi {
[[gnu::used, gnu::retain, gnu::visibility("hidden")]] inline const void* const kDemanded = &qorAbi_1;
}
#endif
