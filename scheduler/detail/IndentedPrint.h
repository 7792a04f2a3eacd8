#pragma once

#include <kel/DumpContext.h>

/// Prints a line of a report: the format, a literal, preceded by `indent` blanks when that is not zero.
#define KEL_PRINT_INDENTED(context, indent, format, ...)                                                     \
    do {                                                                                                     \
        if ((indent) != 0)                                                                                   \
            ::Kel::objDumpPrintf(context, "%*c" format, static_cast<int>(indent),                            \
                                 ' ' __VA_OPT__(, ) __VA_ARGS__);                                            \
        else                                                                                                 \
            ::Kel::objDumpPrintf(context, format __VA_OPT__(, ) __VA_ARGS__);                                \
    } while (false)
