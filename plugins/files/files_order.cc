/* The order in which names are listed. */
#include "files_order.h"

#include <cstring>

static bool is_digit(char byte) noexcept {
    return byte >= '0' && byte <= '9';
}

static int folded(char byte) noexcept {
    const auto value = static_cast<unsigned char>(byte);
    return value >= 'A' && value <= 'Z' ? value - 'A' + 'a' : value;
}

/* Compares the numbers that begin at both places, of any length, and moves behind them. */
static int compare_numbers(const char** left, const char** right) noexcept {
    const char* a = *left + std::strspn(*left, "0");
    const char* b = *right + std::strspn(*right, "0");
    int first = 0; /* of the digits that differ; counts when the lengths are the same */
    for (; is_digit(*a) && is_digit(*b); ++a, ++b) {
        if (first == 0) {
            first = *a - *b;
        }
    }
    *left = a;
    *right = b;
    if (is_digit(*a) != is_digit(*b)) {
        return is_digit(*a) ? 1 : -1;
    }
    return first;
}

bool files_order_before(const char* left, const char* right) noexcept {
    const char* a = left;
    const char* b = right;
    while (*a != '\0' && *b != '\0') {
        int difference = 0;
        if (is_digit(*a) && is_digit(*b)) {
            difference = compare_numbers(&a, &b);
        } else {
            difference = folded(*a++) - folded(*b++);
        }
        if (difference != 0) {
            return difference < 0;
        }
    }
    if ((*a == '\0') != (*b == '\0')) {
        return *a == '\0';
    }
    return std::strcmp(left, right) < 0;
}
