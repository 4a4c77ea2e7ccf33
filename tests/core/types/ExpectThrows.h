#pragma once

#include <gtest/gtest.h>

/// `misuse` must throw an Exception with exactly this text.
template <typename Exception, typename Misuse>
void expectThrows(const char* text, Misuse misuse) {
    try {
        misuse();
        ADD_FAILURE() << "no exception: " << text;
    } catch (const Exception& error) {
        EXPECT_STREQ(error.what(), text);
    }
}
