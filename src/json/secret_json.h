// SecretJson: nlohmann JSON whose texts (and the parser's token buffer) live in memory that is
// wiped when released, for records that carry keys, key handles or tokens.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "corvane/secret_bytes.h"

namespace corvane::jsonmodel {

using SecretString =
    std::basic_string<char, std::char_traits<char>, internal::WipingAllocator<char>>;
using SecretJson = nlohmann::basic_json<std::map, std::vector, SecretString>;

}  // namespace corvane::jsonmodel
