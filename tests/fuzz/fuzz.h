// What the fuzz targets share. Each carries out the script that its input is read as.
#ifndef TESTS_FUZZ_H
#define TESTS_FUZZ_H

#include <cstdlib>
#include <sstream>
#include <string>

void run(std::istream &input);

// The allocation of the library on this thread, counted from now on, that fails; 0: none does.
extern thread_local size_t calls_left;

// The text in front of end, which is dropped; all there is when there is no end.
inline std::string upto(std::istream &input, char end)
{
    std::string text;
    std::getline(input, text, end);
    return text;
}

// The digits that come next.
inline size_t number(std::istream &input)
{
    size_t value = 0;
    while (value < 10000 && isdigit(input.peek()))
        value = 10 * value + static_cast<size_t>(input.get() - '0');
    return value;
}

#define REQUIRE(rule) ((rule) ? void() : abort())

#endif
