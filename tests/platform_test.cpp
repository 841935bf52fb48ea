#include <gtest/gtest.h>

#include <cmath>

#include "platform/kadata/KaDataObject.h"

TEST(Ka3DLimit, DefaultIsValidAndOrderIsChecked)
{
    Ka3DLimit l;
    EXPECT_TRUE(l.IsLimitValid());
    l.SetLimit(0, 0, 0, 1, 1, 1);
    EXPECT_TRUE(l.IsLimitValid());
    l.SetLimit(2, 0, 0, 1, 1, 1);
    EXPECT_FALSE(l.IsLimitValid());
    l.SetLimit(0, 0, 0, 1, 1, std::nan(""));
    EXPECT_FALSE(l.IsLimitValid());
}
