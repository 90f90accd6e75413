// Objects in a client's hands, and the files they are saved to and loaded from.
#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/pcb/internal.h"
#include "platform/pcb/odl.h"

bool object_hasParameters(const object_t* object) {
    OWED(object);
    return object->firstParameter;
}

parameter_t* object_firstParameter(object_t* object) {
    OWED(object);
    return object->firstParameter;
}

parameter_t* object_nextParameter(parameter_t* parameter) {
    OWED(parameter);
    return parameter->next;
}

parameter_t* object_getParameter(object_t* object, const char* name) {
    OWED(object);
    OWED(name);
    parameter_t* parameter = object->firstParameter;
    while (parameter && strcmp(parameter->name.get(), name) != 0) {
        parameter = parameter->next;
    }
    return parameter;
}

object_t* object_firstChild(object_t* object) {
    OWED(object);
    return object->firstChild;
}

object_t* object_nextSibling(object_t* object) {
    OWED(object);
    return object->next;
}

char* object_pathChar(const object_t* object, uint32_t flags) {
    OWED(object);
    if (flags) {
        fail(PCB_ERROR_INVALID_ARGUMENT);
        return nullptr;
    }
    OwnedText path = objectPath(object);
    if (!path) fail(PCB_ERROR_NO_MEMORY);
    return path.release();
}

datamodel_t* object_datamodel(object_t* object) {
    OWED(object);
    while (object->parent) {
        object = object->parent;
    }
    return reinterpret_cast<datamodel_t*>(object);
}

const char* parameter_name(const parameter_t* parameter) {
    OWED(parameter);
    return parameter->name.get();
}

const variant_t* parameter_getValue(const parameter_t* parameter) {
    OWED(parameter);
    return &parameter->value;
}

// ---- Saving ----

static bool writeAll(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(file, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR) return false;
        if (count > 0) bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

// A file that already has the new file's name is removed and never written to: a link would lead elsewhere, and a pipe
// would have no reader.
static bool writeAndSync(const char* path, std::string_view bytes) {
    if (unlink(path) != 0 && errno != ENOENT) return false;
    const int file = open(path, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (file < 0) return false;
    const bool written = writeAll(file, bytes) && fsync(file) == 0;
    return close(file) == 0 && written;
}

// A renamed file is there after a power cut only when its folder was synced too.
static bool syncFolder(char* path) {
    const int folder = open(dirname(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return false;
    const bool synced = fsync(folder) == 0 || errno == EINVAL;  // some file systems have nothing to sync there
    close(folder);
    return synced;
}

bool datamodel_save(object_t* object, int32_t depth, const char* filePath, uint32_t flags) {
    OWED(object);
    OWED(filePath);
    if (flags != DATAMODEL_TEXT) return fail(PCB_ERROR_INVALID_ARGUMENT);
    Buffer text;
    const OwnedText newPath = formatText("%s.new", filePath);
    const OwnedText folderPath = copyText(filePath);
    if (!newPath || !folderPath || !printOdl(object, depth, &text)) return fail(PCB_ERROR_NO_MEMORY);
    if (!writeAndSync(newPath.get(), text.content()) || rename(newPath.get(), filePath) != 0) {
        unlink(newPath.get());
        return fail(PCB_ERROR_CANNOT_WRITE_FILE);
    }
    return syncFolder(folderPath.get()) || fail(PCB_ERROR_CANNOT_WRITE_FILE);
}

// ---- Loading ----

namespace {

struct Load {
    datamodel_t* target;
    const char* filePath;
    bool setting;  // the second time through the file; the first one only checks
};

}  // namespace

static bool loadParameter(const Load& load, const char* path, object_t* held, const parameter_t* saved) {
    const parameter_t* parameter = object_getParameter(held, saved->name.get());
    if (!parameter || parameter->readOnly) return true;
    if (load.setting) return setOnBus(load.target->client, path, saved->name.get(), saved->text());
    if (fitsType(parameter->type, saved->text())) return true;
    fprintf(stderr, "%s: line %u: the value does not fit the type of %s.%s\n", load.filePath, saved->line, path,
            saved->name.get());
    return fail(PCB_ERROR_WRONG_TYPE);
}

static bool loadObject(const Load& load, object_t* saved) {
    const OwnedText path = objectPath(saved);
    if (!path) return fail(PCB_ERROR_NO_MEMORY);
    object_t* held = findObject(&load.target->root, path.get());
    if (!held) return true;
    for (const parameter_t* parameter = saved->firstParameter; parameter; parameter = parameter->next) {
        if (!loadParameter(load, path.get(), held, parameter)) return false;
    }
    for (object_t* child = saved->firstChild; child; child = child->next) {
        if (!loadObject(load, child)) return false;
    }
    return true;
}

bool datamodel_load(datamodel_t* datamodel, const char* filePath, uint32_t flags) {
    OWED(datamodel);
    OWED(filePath);
    if (flags != DATAMODEL_TEXT) return fail(PCB_ERROR_INVALID_ARGUMENT);
    uint32_t reason = 0;
    const OwnedRecord<object_t> saved = readOdlFile(filePath, &reason);
    if (!saved) return fail(reason);
    return loadObject({datamodel, filePath, false}, saved.get()) &&
           loadObject({datamodel, filePath, true}, saved.get());
}
