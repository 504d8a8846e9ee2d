#pragma once

/// Throws the failure of a wide text without multibyte form where that form is needed.
[[noreturn]] void qelThrowInvalidWide();
