#ifndef QMLOGGER_EXPORT_H
#define QMLOGGER_EXPORT_H

/// @file
/// Visibility of the logging library's symbols. Everything is hidden unless marked.

/// Marks a class, function or variable that callers may use.
#define QMLOGGER_EXPORT __attribute__((visibility("default")))

#endif
