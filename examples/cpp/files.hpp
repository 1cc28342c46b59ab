// What the examples share: raw files, and a main function that reports exceptions.
#pragma once

#include "Telvane_AVFilter.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

using Arguments = std::vector<std::string>;

template <class Stream>
Stream Open(const std::string& name)
{
    Stream file(name, std::ios::binary);
    if (!file) {
        throw std::runtime_error("cannot open " + name);
    }
    file.exceptions(std::ios::badbit);
    return file;
}

// How many pieces of so many bytes a file holds; nothing for pipes, whose streams then do not end.
inline std::optional<std::int64_t> Count(const std::string& name, std::size_t nBytes)
{
    if (!std::filesystem::is_regular_file(name)) {
        std::cerr << name
                  << ": no file, so its length is unknown: filters keep what they hold at the end\n";
        return std::nullopt;
    }
    return static_cast<std::int64_t>(std::filesystem::file_size(name) / nBytes);
}

// Returns the number of bytes read and fills the rest with zeros.
inline std::size_t Read(std::ifstream& in, std::span<std::byte> bytes)
{
    in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    const auto nRead = static_cast<std::size_t>(in.gcount());
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(nRead), bytes.end(), std::byte{0});
    return nRead;
}

// Returns false at the end of the file.
inline bool ReadPicture(std::ifstream& in, std::span<std::byte> picture)
{
    const std::size_t nRead = Read(in, picture);
    if (nRead != 0 && nRead != picture.size()) {
        throw std::runtime_error("the input does not end with a whole picture");
    }
    return nRead != 0;
}

inline void Write(std::ofstream& out, std::span<const std::byte> bytes)
{
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    out.flush();
}

template <class Run>
int Main(int argc, char** argv, const char* szUsage, bool bUsable, const Run& run)
{
    try {
        if (!bUsable) {
            throw std::runtime_error(std::string("usage: ") + argv[0] + " " + szUsage);
        }
        run(Arguments(argv + 1, argv + argc));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << argv[0] << ": " << error.what() << '\n';
        return 1;
    }
}
