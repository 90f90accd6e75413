#include "tests/world/cloud.h"

#include <cjson/cJSON.h>
#include <gtest/gtest.h>

#include <sstream>

namespace world {

Cloud::Cloud() : process_({binary("cloud-sim"), "--dir", directory_}) {
    EXPECT_TRUE(waitFor([this] { return !url().empty() || !process_.running(); }));
    EXPECT_TRUE(process_.running()) << process_.output();
}

std::string Cloud::order(std::vector<std::string> words) const {
    words.insert(words.begin(), {binary("cloud-sim"), "--control", directory_});
    std::string output;
    EXPECT_EQ(run(words, &output), 0) << output;
    return output;
}

void Cloud::fault(const std::string& resource, const std::string& kind, unsigned count, const std::string& value) {
    std::vector<std::string> words = {"fault", resource, kind, std::to_string(count)};
    if (!value.empty()) words.push_back(value);
    order(words);
}

void Cloud::answer(const std::string& resource, int status, const std::string& body) {
    writeFile(directory_ + "/answer", body);
    order({"fault", resource, "body", "1", std::to_string(status), "@" + directory_ + "/answer"});
}

std::vector<CloudRequest> Cloud::journal() const {
    std::vector<CloudRequest> requests;
    const std::string file = readFile(directory_ + "/journal");
    std::istringstream lines(file.substr(0, file.rfind('\n') + 1));  // the last line may still be under way
    for (std::string line; std::getline(lines, line);) {
        const std::unique_ptr<cJSON, void (*)(cJSON*)> entry(cJSON_Parse(line.c_str()), cJSON_Delete);
        const auto member = [&entry](const char* name) {
            return std::string(cJSON_GetStringValue(cJSON_GetObjectItem(entry.get(), name)));
        };
        CloudRequest request = {member("method"), member("target"), member("body"), {}};
        const cJSON* header = nullptr;
        cJSON_ArrayForEach(header, cJSON_GetObjectItem(entry.get(), "headers")) {
            request.headers.emplace_back(cJSON_GetStringValue(header));
        }
        requests.push_back(std::move(request));
    }
    return requests;
}

std::string Cloud::wire() const {
    std::string lines;
    for (const CloudRequest& request : journal()) {
        lines += request.method + " " + request.target + "|";
        for (size_t i = 1; i < request.headers.size(); ++i) {
            lines += request.headers[i] + "|";
        }
        lines += request.body + "\n";
    }
    return lines;
}

}  // namespace world
