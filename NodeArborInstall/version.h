#pragma once

// The library's two plain functions, found by name in the loaded library. The texts are constants.

extern "C" {
/// The build's version tag.
const char* GetVersionTag();
/// The hash of the sources that the release was made from.
const char* GetVersionHash();
}
