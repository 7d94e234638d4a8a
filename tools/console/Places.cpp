#include "console/Places.h"

#include <Plinth/Console.h>

#include <algorithm>
#include <filesystem>

namespace Veltro::Console {

std::vector<std::string> consolesIn(const std::string& folder) {
    std::vector<std::string> found;
    std::error_code failed;
    for (const auto& entry : std::filesystem::directory_iterator(folder, failed)) {
        const std::string path = folder + "/" + entry.path().filename().string();
        Plinth::CConsoleClient client;
        if (client.attach(path.c_str())) found.push_back(path);
    }
    std::sort(found.begin(), found.end());
    return found;
}

}  // namespace Veltro::Console
