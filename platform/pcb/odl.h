// The text format of definition and store files.
//
//   object OrvoService {
//       object DynDNS {
//           bool Enable = "false";
//           read-only string HostName = "a \"name\"\n";
//       }
//   }
//
// A backslash stands before a quote or a backslash in a value, and \n for a line break; any other byte stands as it is.
// Names are made of letters, digits, '-' and '_'.
#pragma once

#include "platform/pcb/tree.h"

struct OdlFault {
    unsigned line = 0;
    const char* reason = nullptr;  // never freed
};

/// Parses a whole text: a root that holds its objects, or null with what is wrong and where.
[[nodiscard]] OwnedRecord<object_t> parseOdl(std::string_view text, OdlFault* fault);

/// Reads and parses a file: a root, or null with the reason in `error`. Where a damaged file is wrong goes to standard
/// error as one line.
[[nodiscard]] OwnedRecord<object_t> readOdlFile(const char* path, uint32_t* error);

/// Adds an object, inside the objects that enclose it, with what lies at most `depth` levels below it (-1: all); false
/// when out of memory.
[[nodiscard]] bool printOdl(const object_t* object, int depth, Buffer* buffer);
