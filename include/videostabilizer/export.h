// SPDX-License-Identifier: Apache-2.0

#pragma once

// Marks what the shared library exports; everything else is built with hidden visibility.
#define VIDEOSTABILIZER_API __attribute__((visibility("default")))
