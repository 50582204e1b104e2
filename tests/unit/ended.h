// The result of a part of a run: its status and its output.
#ifndef PLAX_TESTS_UNIT_ENDED_H
#define PLAX_TESTS_UNIT_ENDED_H

#include "return_status.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

struct Ended {
    QRT_ReturnStatus status;
    std::string standardOutput;
    std::string standardError;

    bool operator==(const Ended &) const = default;
};

template <typename Piece>
Ended Capture(const Piece &piece)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const QRT_ReturnStatus status = piece();
    fflush(stdout);
    return {status, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
}

#endif
