#include "mem_path.h"

#include <cerrno>
#include <sstream>
#include <vector>

int memPlainPath(const char* path, std::string& plain)
{
    std::vector<std::string> names;
    std::istringstream steps{std::string(path)};
    for (std::string step; std::getline(steps, step, '/');) {
        if (step.empty() || step == ".") {
            continue;
        }
        if (step != "..") {
            names.push_back(step);
        } else if (names.empty()) {
            return EACCES;
        } else {
            names.pop_back();
        }
    }
    plain.clear();
    for (const std::string& name : names) {
        plain += plain.empty() ? name : "/" + name;
    }
    return 0;
}
