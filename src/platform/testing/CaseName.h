#pragma once
// Names TEST_P cases after their `name` field, so a failing case reads as what it tests.

#include <gtest/gtest.h>

#include <string>

namespace tarnwick {

struct CaseName {
  template <typename Param>
  std::string operator()(const ::testing::TestParamInfo<Param>& param) const {
    return param.param.name;
  }
};

}  // namespace tarnwick
