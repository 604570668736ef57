#include "model/AudioInfoTag.h"

#include <gtest/gtest.h>

TEST(AudioInfoTagSmoke, GenresComeFromResources) { EXPECT_EQ(AudioInfoTag::genreForIndex(17), "Rock"); }
