// Saving objects to files and loading them again.
#include "tests/platform/client.h"

static constexpr char KFile[] = "/media/orvoservice.odl";

static std::string save(const Client& client, const char* path) {
    object_t* object = pcb_client_get_object(client.peer, path, 0);
    return datamodel_save(object, -1, KFile, DATAMODEL_TEXT) ? world::readFile(KFile) : error_string(pcb_error);
}

static std::string load(const Client& client, const char* path = "OrvoService") {
    object_t* object = pcb_client_get_object(client.peer, path, 0);
    return datamodel_load(object_datamodel(object), KFile, DATAMODEL_TEXT) ? "done" : error_string(pcb_error);
}

TEST_F(Platform, DamagedFileChangesNothingAndNamesItsLine) {
    const std::string before = save(client, "OrvoService"), tooLong(size_t{1024} * 1024 + 1, 'x'), zero(1, '\0');
    const std::string good = "object OrvoService {\n    object DynDNS {\n        bool Enable = \"true\";\n";
    const std::pair<std::string, std::string> cases[] = {
        {"\n \n",                          "line 3: an object is missing\n"             },
        {good + "}\n",                     "line 4: '}' is missing\n"                   },
        {good + "bool X = \"maybe\";}}",   "line 4: the value is no boolean\n"          },
        {good + zero,                      "line 4: neither an object nor a parameter\n"},
        {good + "string X = \"" + tooLong, "line 4: the value is longer than 1 MiB\n"   },
    };
    for (const auto& [text, message] : cases) {
        SCOPED_TRACE(text.substr(0, 1000));
        world::writeFile(KFile, text);
        testing::internal::CaptureStderr();
        ASSERT_EQ(load(client), "the file is damaged");
        ASSERT_TRUE(testing::internal::GetCapturedStderr().starts_with(std::string(KFile) + ": " + message));
        ASSERT_EQ(save(client, "OrvoService"), before);
    }
}
