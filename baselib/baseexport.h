#pragma once

/// Marks what libbaselib.so and libctools.so export.
#define BASE_API __attribute__((visibility("default")))
