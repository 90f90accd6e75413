// Calls of the modules under test that can be made to fail; linked with --wrap.
#pragma once

#include <string>
#include <vector>

enum class Call { None, Init, Append, Format, Copy, Grow, Resolver, CaInfo, HttpHeader };

/// Lets the `nth` call of a kind fail, from now on counted; only that one.
void letFail(Call call, int nth = 1);

/// Each libcurl option set since the last look, as "NAME=value".
std::vector<std::string> takeOptions();
