#pragma once

#include <string>
#include <vector>

/// The texts as main and the exec functions take them: with a null pointer at the end. Valid as long as the texts are.
inline std::vector<char*> ArgumentVector(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}
