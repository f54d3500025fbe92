// Tables for people: columns as wide as their widest cell, two blanks apart.
#pragma once

#include <string>
#include <vector>

namespace vellbctl
{

struct column {
    std::string title;
    bool right = false; // numbers stand to the right
};

class table_t
{
  public:
    explicit table_t(std::vector<column> columns) : columns_(std::move(columns)) {}
    void row(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
    [[nodiscard]] bool empty() const { return rows_.empty(); }
    [[nodiscard]] std::string text() const;

  private:
    std::vector<column> columns_;
    std::vector<std::vector<std::string>> rows_{};
};

} // namespace vellbctl
