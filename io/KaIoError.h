#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

// A file could not be read or written. The message always names the file and,
// where one applies, the 1-based line (or feature) number:
//   "points.csv:17: expected 3 numbers, found 'abc'"
//   "out.tif: cannot create the file: No such file or directory"
class KaIoError : public std::runtime_error {
public:
    KaIoError(const std::string& file, const std::string& what)
        : KaIoError(file, 0, what) {}
    KaIoError(const std::string& file, std::size_t line, const std::string& what)
        : std::runtime_error(Compose(file, line, what)), file_(file), line_(line) {}

    const std::string& file() const { return file_; }
    std::size_t line() const { return line_; }  // 0 when no line applies

private:
    static std::string Compose(const std::string& file, std::size_t line, const std::string& what)
    {
        std::string m = file;
        if (line > 0) {
            m += ':';
            m += std::to_string(line);
        }
        m += ": ";
        m += what;
        return m;
    }

    std::string file_;
    std::size_t line_;
};
