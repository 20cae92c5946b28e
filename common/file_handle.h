#pragma once

#include <cstdio>
#include <memory>

// Closes a stream when its owner goes, also on the way out of an exception.
struct FileCloser {
    void operator()(std::FILE* stream) const { std::fclose(stream); }
};

// A stream that is closed with its owner. Where the outcome of the close matters (writing), release
// it and call fclose by hand.
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;
