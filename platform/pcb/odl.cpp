#include "platform/pcb/odl.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

static constexpr char KMemoryIsShort[] = "memory is short";
static constexpr size_t KMaxFileLength = size_t{64} * 1024 * 1024;

namespace {

struct Parser {
    std::string_view rest;
    unsigned line = 1;
    unsigned lastTokenLine = 1;
    unsigned faultLine = 0;
    const char* reason = nullptr;
};

}  // namespace

// What comes next is wrong.
static bool damaged(Parser* parser, const char* reason) {
    parser->faultLine = parser->line;
    parser->reason = reason;
    return false;
}

// Something should have followed the last token, whose line is the one to look at.
static bool missing(Parser* parser, const char* reason) {
    parser->faultLine = parser->lastTokenLine;
    parser->reason = reason;
    return false;
}

static bool isNameByte(char byte) {
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9') ||
           byte == '-' || byte == '_';
}

static void skipBlanks(Parser* parser) {
    while (!parser->rest.empty() && strchr(" \t\r\n", parser->rest.front()) && parser->rest.front()) {
        if (parser->rest.front() == '\n') ++parser->line;
        parser->rest.remove_prefix(1);
    }
}

static bool accept(Parser* parser, char byte) {
    skipBlanks(parser);
    if (parser->rest.empty() || parser->rest.front() != byte) return false;
    parser->rest.remove_prefix(1);
    parser->lastTokenLine = parser->line;
    return true;
}

// A name or a keyword; empty when something else comes.
static std::string_view takeWord(Parser* parser) {
    skipBlanks(parser);
    size_t length = 0;
    while (length < parser->rest.size() && isNameByte(parser->rest[length])) {
        ++length;
    }
    const std::string_view word = parser->rest.substr(0, length);
    parser->rest.remove_prefix(length);
    if (length) parser->lastTokenLine = parser->line;
    return word;
}

static bool takeValue(Parser* parser, Buffer* value) {
    if (!accept(parser, '"')) return missing(parser, "a value in quotes is missing");
    while (true) {
        const std::string_view plain =
            parser->rest.substr(0, parser->rest.find_first_of(std::string_view("\"\\\n\0", 4)));
        if (!bufferAppend(value, plain)) return damaged(parser, KMemoryIsShort);
        if (value->length > KMaxValueLength) return damaged(parser, "the value is longer than 1 MiB");
        parser->rest.remove_prefix(plain.size());
        if (!parser->rest.empty() && parser->rest.front() == '"') break;
        if (parser->rest.size() < 2 || parser->rest.front() != '\\') return damaged(parser, "the value is not closed");
        const char escaped = parser->rest[1];
        if (!escaped || !strchr("\"\\n", escaped)) return damaged(parser, "unknown escape in the value");
        if (!bufferAppend(value, escaped == 'n' ? "\n" : parser->rest.substr(1, 1))) {
            return damaged(parser, KMemoryIsShort);
        }
        parser->rest.remove_prefix(2);
    }
    parser->rest.remove_prefix(1);
    return true;
}

static bool holdsParameter(const object_t* object, std::string_view name) {
    for (const parameter_t* parameter = object->firstParameter; parameter; parameter = parameter->next) {
        if (name == parameter->name.get()) return true;
    }
    return false;
}

static bool takeParameter(Parser* parser, object_t* object, std::string_view word) {
    const bool readOnly = word == "read-only";
    if (readOnly) word = takeWord(parser);
    if (word != "bool" && word != "string") return damaged(parser, "neither an object nor a parameter");
    const ParameterType type = word == "bool" ? ParameterType::Bool : ParameterType::String;
    const std::string_view name = takeWord(parser);
    if (name.empty()) return missing(parser, "the parameter's name is missing");
    if (holdsParameter(object, name)) return damaged(parser, "the parameter stands here twice");
    if (!accept(parser, '=')) return missing(parser, "'=' is missing");
    Buffer value;
    if (!takeValue(parser, &value)) return false;
    if (!fitsType(type, value.content())) return damaged(parser, "the value is no boolean");
    if (!accept(parser, ';')) return missing(parser, "';' is missing");
    parameter_t* parameter = addParameter(object, name, type, readOnly, value.content());
    if (!parameter) return damaged(parser, KMemoryIsShort);
    parameter->line = parser->line;
    return true;
}

static bool takeObject(Parser* parser, object_t* parent, int depth) {
    if (depth >= KMaxDepth) return damaged(parser, "objects are nested too deeply");
    const std::string_view name = takeWord(parser);
    if (name.empty()) return missing(parser, "the object's name is missing");
    if (findChild(parent, name)) return damaged(parser, "the object stands here twice");
    if (!accept(parser, '{')) return missing(parser, "'{' is missing");
    object_t* object = addChild(parent, name);
    if (!object) return damaged(parser, KMemoryIsShort);
    while (!accept(parser, '}')) {
        if (parser->rest.empty()) return missing(parser, "'}' is missing");
        const std::string_view word = takeWord(parser);
        if (!(word == "object" ? takeObject(parser, object, depth + 1) : takeParameter(parser, object, word))) {
            return false;
        }
    }
    return true;
}

OwnedRecord<object_t> parseOdl(std::string_view text, OdlFault* fault) {
    auto root = newRecord<object_t>();
    Parser parser{text};
    bool good = root || damaged(&parser, KMemoryIsShort);
    do {
        good = good && (takeWord(&parser) == "object" || damaged(&parser, "an object is missing")) &&
               takeObject(&parser, root.get(), 0);
        skipBlanks(&parser);
    } while (good && !parser.rest.empty());
    if (good) return root;
    *fault = {parser.faultLine, parser.reason};
    return nullptr;
}

// Only an ordinary file is opened: reading a pipe could wait for ever.
static int openToRead(const char* path) {
    const int file = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    struct stat status = {};
    if (file < 0 || (fstat(file, &status) == 0 && S_ISREG(status.st_mode))) return file;
    close(file);
    errno = EINVAL;
    return -1;
}

static bool readFile(const char* path, Buffer* content) {
    const int file = openToRead(path);
    if (file < 0) return false;
    ssize_t count = 0;
    do {
        if (!bufferReserve(content, size_t{64} * 1024)) {
            errno = ENOMEM;
            count = -1;
            break;
        }
        count = read(file, content->bytes.get() + content->length, size_t{64} * 1024);
        if (count > 0) content->length += static_cast<size_t>(count);
        if (content->length > KMaxFileLength) {
            errno = EFBIG;
            count = -1;
        }
    } while (count > 0 || (count < 0 && errno == EINTR));
    const int reason = errno;
    close(file);
    errno = reason;
    return count == 0;
}

OwnedRecord<object_t> readOdlFile(const char* path, uint32_t* error) {
    Buffer content;
    if (!readFile(path, &content)) {
        *error = errno == ENOMEM ? PCB_ERROR_NO_MEMORY : PCB_ERROR_CANNOT_READ_FILE;
        return nullptr;
    }
    OdlFault fault;
    OwnedRecord<object_t> root = parseOdl(content.content(), &fault);
    if (root) return root;
    *error = fault.reason == KMemoryIsShort ? PCB_ERROR_NO_MEMORY : PCB_ERROR_DAMAGED_FILE;
    fprintf(stderr, "%s: line %u: %s\n", path, fault.line, fault.reason);
    return nullptr;
}

static bool indent(Buffer* buffer, int level) {
    bool good = true;
    for (int i = 0; i < level; ++i) {
        good = good && bufferAppend(buffer, "    ");
    }
    return good;
}

static bool printParameter(const parameter_t* parameter, int level, Buffer* buffer) {
    bool good = indent(buffer, level) && bufferAppend(buffer, parameter->readOnly ? "read-only " : "") &&
                bufferAppend(buffer, parameter->type == ParameterType::Bool ? "bool " : "string ") &&
                bufferAppend(buffer, parameter->name.get()) && bufferAppend(buffer, " = \"");
    std::string_view rest = parameter->text();
    while (good && !rest.empty()) {
        const std::string_view plain = rest.substr(0, rest.find_first_of("\"\\\n"));
        good = bufferAppend(buffer, plain);
        rest.remove_prefix(plain.size());
        if (!good || rest.empty()) break;
        good = bufferAppend(buffer, "\\") && bufferAppend(buffer, rest.front() == '\n' ? "n" : rest.substr(0, 1));
        rest.remove_prefix(1);
    }
    return good && bufferAppend(buffer, "\";\n");
}

static bool openBlock(const object_t* object, int level, Buffer* buffer) {
    return indent(buffer, level) && bufferAppend(buffer, "object ") && bufferAppend(buffer, object->name.get()) &&
           bufferAppend(buffer, " {\n");
}

static bool closeBlock(int level, Buffer* buffer) { return indent(buffer, level) && bufferAppend(buffer, "}\n"); }

static bool printObject(const object_t* object, int depth, int level, Buffer* buffer) {
    if (!openBlock(object, level, buffer)) return false;
    for (const parameter_t* parameter = object->firstParameter; parameter; parameter = parameter->next) {
        if (!printParameter(parameter, level + 1, buffer)) return false;
    }
    for (const object_t* child = depth ? object->firstChild : nullptr; child; child = child->next) {
        if (!printObject(child, depth - 1, level + 1, buffer)) return false;
    }
    return closeBlock(level, buffer);
}

// Opens the blocks of what encloses `object`; gives how many they are, or -1.
static int openEnclosing(const object_t* object, Buffer* buffer) {
    if (!object->parent || !object->parent->parent) return 0;
    const int level = openEnclosing(object->parent, buffer);
    return level < 0 || !openBlock(object->parent, level, buffer) ? -1 : level + 1;
}

bool printOdl(const object_t* object, int depth, Buffer* buffer) {
    if (!object->parent) {
        bool good = true;
        for (const object_t* child = depth ? object->firstChild : nullptr; child; child = child->next) {
            good = good && printObject(child, depth - 1, 0, buffer);
        }
        return good;
    }
    int level = openEnclosing(object, buffer);
    if (level < 0 || !printObject(object, depth, level, buffer)) return false;
    while (level-- > 0) {
        if (!closeBlock(level, buffer)) return false;
    }
    return true;
}
