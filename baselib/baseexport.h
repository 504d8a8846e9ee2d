#pragma once

/// Marks the exports of libbaselib.so and libctools.so.
#define BASE_API __attribute__((visibility("default")))
