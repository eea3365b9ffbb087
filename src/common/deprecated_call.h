// Calls of interfaces that macOS marks deprecated but that the tool needs (the File
// Manager, for the creation date, Finder flags and locked bit): the deprecation warning is
// silenced at such a call, through this, and nowhere else.
#pragma once

// Clang builds for macOS; GCC, which allows no pragma inside an expression, builds only
// against the Linux stand-ins, which deprecate nothing.
#if defined(__clang__)
#define QVX_DEPRECATED_CALL(...)                                          \
    _Pragma("clang diagnostic push")                                      \
        _Pragma("clang diagnostic ignored \"-Wdeprecated-declarations\"") \
            __VA_ARGS__ _Pragma("clang diagnostic pop")
#else
#define QVX_DEPRECATED_CALL(...) __VA_ARGS__
#endif
