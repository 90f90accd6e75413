#include "tests/world/cloud.h"

#include <gtest/gtest.h>

#include <sstream>

namespace world {

Cloud::Cloud() : process_({binary("cloud-sim"), "--dir", directory_}) {
    EXPECT_TRUE(waitFor([this] { return !url().empty(); }, &process_)) << process_.output();
}

std::string Cloud::order(std::vector<std::string> words) const {
    words.insert(words.begin(), {binary("cloud-sim"), "--control", directory_});
    std::string output;
    EXPECT_EQ(run(words, &output), 0) << output;
    return output;
}

void Cloud::answer(const std::string& resource, int status, const std::string& body) {
    writeFile(directory_ + "/answer", body);
    order({"fault", resource, "body", "1", std::to_string(status), "@" + directory_ + "/answer"});
}

std::vector<std::string> Cloud::journal() const {
    std::vector<std::string> requests;
    const std::string all = wire();
    std::istringstream lines(all.substr(0, all.rfind('\n') + 1));  // the last line may still be under way
    for (std::string line; std::getline(lines, line);) {
        requests.push_back(line);
    }
    return requests;
}

}  // namespace world
