// Parameters and objects of the data model: reading, writing, walking, loading and saving.

#include "common/gate/gate.h"
#include "pcblib/pcbclient_internal.h"

OwnedText easyGetPcbParamAsString(PcbContext* context, const char* object, const char* parameter) {
    if (!context) {
        LOG(ERROR, "Get: Null context passed");
        return nullptr;
    }
    // The value belongs to the library.
    auto* value = outsideGate([&] { return pcb_client_get(context->peer, object, parameter); });
    if (!value) {
        const uint32_t error = pcb_client_error(context->pcb);
        LOG(ERROR, "Get: Failed to get object %s param %s (0x%8.8X - %s)", object, parameter, error, errorText(error));
        return nullptr;
    }
    OwnedText text(variant_char(value));
    if (!text) LOG(ERROR, "Get: Failed to alloc memory for value");
    return text;
}

int easySetPcbParam(PcbContext* context, const char* object, const char* parameter, const char* value) {
    if (!context) {
        LOG(ERROR, "Set: Null context passed");
        return 0;
    }
    ScopedVariant text;
    if (!text.ready || !variant_setChar(&text.variant, value)) return 0;
    const bool set = outsideGate([&] { return pcb_client_set(context->peer, object, parameter, &text.variant); });
    if (!set) {
        const uint32_t error = pcb_client_error(context->pcb);
        LOG(ERROR, "Set: Failed to set object %s param %s (0x%8.8X - %s)", object, parameter, error, errorText(error));
    }
    return set;
}

int easySetPcbParamBoolValue(PcbContext* context, const char* object, const char* parameter, int flag) {
    return easySetPcbParam(context, object, parameter, flag ? "true" : "false");
}

int easyClearPcbParam(PcbContext* context, const char* object, const char* parameter) {
    return easySetPcbParam(context, object, parameter, "");
}

object_t* easyGetPcbObject(PcbContext* context, const char* path) {
    if (!context) {
        LOG(ERROR, "GetO: Null context passed");
        return nullptr;
    }
    object_t* object = handleOf(outsideGate([&] { return pcb_client_get_object(context->peer, path, 0); }));
    if (!object) {
        const uint32_t error = pcb_client_error(context->pcb);
        LOG(ERROR, "GetO: Failed to get object %s (0x%8.8X - %s)", path, error, errorText(error));
    }
    return object;
}

parameter_t* easyGetPcbParamNext(object_t* object, parameter_t** cursor, const char** name, OwnedText* value) {
    *name = nullptr;
    value->reset();
    if (!object) {
        LOG(ERROR, "Next: pcb object is not provided");
        return nullptr;
    }
    if (!object_hasParameters(object)) {
        LOG(WARN, "Next: pcb object has no parameters");
        return nullptr;
    }
    *cursor = handleOf(*cursor ? object_nextParameter(*cursor) : object_firstParameter(object));
    if (!*cursor) return nullptr;
    *name = parameter_name(*cursor);
    value->reset(variant_char(parameter_getValue(*cursor)));
    return *cursor;
}

OwnedText easyGetPcbParamByName(object_t* object, const char* name) {
    if (!name) {
        LOG(ERROR, "Get: no param name");
        return nullptr;
    }
    if (!object) {
        LOG(ERROR, "Get: pcb object is not provided");
        return nullptr;
    }
    auto* parameter = object_getParameter(object, name);
    if (!parameter) {
        LOG(ERROR, "Get: param %s not found", name);
        return nullptr;
    }
    return OwnedText(variant_char(parameter_getValue(parameter)));
}

// The file is written with the gate held: an orderly end of the process waits for a save that is under way.
static bool saveObject(object_t* object, const char* path, const char* file, const char* objectPath) {
    if (!datamodel_save(object, -1, path, KDatamodelText)) {
        LOG(WARN, "Failed to store datamodel for object %s in file %s", objectPath, file);
        return false;
    }
    LOG(INFO, "%s saved to %s", path, objectPath);
    return true;
}

static bool loadObject(datamodel_t* datamodel, const char* path, const char* objectPath) {
    if (!outsideGate([&] { return datamodel_load(datamodel, path, KDatamodelText); })) {
        LOG(WARN, "Failed to load datamodel from file %s", path);
        return false;
    }
    LOG(INFO, "%s loaded from %s", path, objectPath);
    return true;
}

static int pcbDatamodelLoadOrSave(PcbContext* context, const char* folder, const char* file, const char* objectPath,
                                  bool save) {
    const OwnedText path = formatText("%s/%s", folder, file);
    if (!path) return 0;
    object_t* object =
        outsideGate([&] { return context ? handleOf(pcb_client_get_object(context->peer, objectPath, 0)) : nullptr; });
    if (!object) {
        LOG(WARN, "Cannot find object %s in the datamodel", objectPath);
        return 0;
    }
    datamodel_t* datamodel = handleOf(object_datamodel(object));
    if (!datamodel) {
        LOG(WARN, "Failed to get datamodel");
        return 0;
    }
    return save ? saveObject(object, path.get(), file, objectPath) : loadObject(datamodel, path.get(), objectPath);
}

static constexpr char KDefaultFolder[] = "/etc/config";

int easyPcbDatamodelLoad(PcbContext* context, const char* file, const char* object) {
    return pcbDatamodelLoadOrSave(context, KDefaultFolder, file, object, false);
}

int easyPcbDatamodelSave(PcbContext* context, const char* file, const char* object) {
    return pcbDatamodelLoadOrSave(context, KDefaultFolder, file, object, true);
}

int easyPcbDatamodelLoad_v2(PcbContext* context, const char* folder, const char* file, const char* object) {
    return pcbDatamodelLoadOrSave(context, folder, file, object, false);
}

int easyPcbDatamodelSave_v2(PcbContext* context, const char* folder, const char* file, const char* object) {
    return pcbDatamodelLoadOrSave(context, folder, file, object, true);
}
