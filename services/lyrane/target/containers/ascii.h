/* Letter case without the locale: only A to Z fold. */
#ifndef LYRANE_ASCII_H
#define LYRANE_ASCII_H

inline int ascii_lower(unsigned char c) noexcept {
    return c >= 'A' && c <= 'Z' ? c + 32 : c;
}

/* Compares two texts without regard to case; neither may be null. */
inline bool ascii_equal_nocase(const char* a, const char* b) noexcept {
    while (*a != '\0' && ascii_lower(static_cast<unsigned char>(*a)) ==
                             ascii_lower(static_cast<unsigned char>(*b))) {
        ++a;
        ++b;
    }
    return ascii_lower(static_cast<unsigned char>(*a)) ==
           ascii_lower(static_cast<unsigned char>(*b));
}

#endif
