#pragma once

#include <ios>
#include <string>

namespace hwcommon::fileUtil {

bool exists(const std::string& path);
bool getFileContent(const std::string& path, std::string& content, std::ios_base::openmode mode);
bool saveContentToFile(const std::string& path, const std::string& content,
                       std::ios_base::openmode mode);

}  // namespace hwcommon::fileUtil
