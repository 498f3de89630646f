// A sysrepo repository of this process's own, with the YANG modules in it.
#pragma once

#include <gtest/gtest.h>

// Makes the repository before the first test and removes it after the last; sysrepo keeps its path for the life of
// the process.
class PrivateRepository : public testing::Environment
{
  public:
    void SetUp() override;
    void TearDown() override;
};
