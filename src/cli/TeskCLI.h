#pragma once
#include <string>
#include <vector>
namespace TeskCLI {
int main(const std::vector<std::string>& args);
}
