#include "framework/Exception.h"

#include <gtest/gtest.h>

#include <string>

#include "framework/Assert.h"

namespace Vesk {
namespace {

// ---------------------------------------------------------------------------------------
// Message texts: callers compare them byte for byte.

TEST(ExceptionText, EntityReinstantiation) {
  EXPECT_EQ(entityReinstantiationText("/a/b", "plovType", "x", "y"),
            "Reinstantiating the entity with fullName /a/b where constructor parameter "
            "attribute 'plovType' has a different value of x than the current value of y");
}

TEST(ExceptionText, PtrInterfaceReinstantiationEndsAfterOf) {
  EXPECT_EQ(ptrInterfaceReinstantiationText("oobStatus"),
            "Reinstantiating the pointer interface where constructor parameter attribute "
            "_oobStatus has a different value of");
}

TEST(ExceptionText, NullParameterEndsWithADoubleQuote) {
  String const text =
      nullParameterText("serviceStatus", "Controller::ConnectionServiceStatusDirSm");
  EXPECT_EQ(text,
            "null _serviceStatus parameter to mutator for "
            "Controller::ConnectionServiceStatusDirSm::serviceStatus not allowed\"");
  EXPECT_TRUE(text.endsWith("allowed\""));
}

// ---------------------------------------------------------------------------------------
// The throw helpers: type and text.

template <class E, class F>
std::string whatOf(F&& f) {
  try {
    f();
  } catch (E const& e) {
    return e.what();
  } catch (...) {
    return "<wrong exception type>";
  }
  return "<nothing thrown>";
}

TEST(ExceptionThrow, EachHelperThrowsItsTypeWithItsText) {
  EXPECT_EQ(
      whatOf<ReinstantiationException>([] { throwEntityReinstantiation("/a", "t", "1", "2"); }),
      entityReinstantiationText("/a", "t", "1", "2").stdString());
  EXPECT_EQ(whatOf<ReinstantiationException>([] { throwPtrInterfaceReinstantiation("p"); }),
            ptrInterfaceReinstantiationText("p").stdString());
  EXPECT_EQ(whatOf<NullParameterException>([] { throwNullParameter("a", "T"); }),
            "null _a parameter to mutator for T::a not allowed\"");
  EXPECT_EQ(whatOf<RangeException>([] { throwRangeException("index 9 out of range"); }),
            "index 9 out of range");
  EXPECT_EQ(whatOf<NameInUseException>([] { throwNameInUseException("name x in use"); }),
            "name x in use");
}

TEST(ExceptionThrow, AllAreFrameworkExceptionsAndNoneIsAnother) {
  EXPECT_EQ(whatOf<Exception>([] { throwRangeException("r"); }), "r");
  EXPECT_EQ(whatOf<std::runtime_error>([] { throwNullParameter("a", "T"); }),
            nullParameterText("a", "T").stdString());
  EXPECT_EQ(whatOf<ReinstantiationException>([] { throwNullParameter("a", "T"); }),
            "<wrong exception type>");
  EXPECT_EQ(whatOf<NullParameterException>([] { throwPtrInterfaceReinstantiation("p"); }),
            "<wrong exception type>");
  EXPECT_EQ(whatOf<NameInUseException>([] { throwRangeException("r"); }), "<wrong exception type>");
}

// ---------------------------------------------------------------------------------------
// Assertions stop the process in every build.

void* mountSm(int) { return nullptr; }

class AssertDeath : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(AssertDeath, WritesTheExpressionTextAsWritten) {
  int connectionId = 3;
  // clang-format off
  EXPECT_DEATH(VESK_ASSERT(mountSm( connectionId )),
               "Assertion failed: mountSm\\( connectionId \\)");
  // clang-format on
  EXPECT_DEATH(VESK_ASSERT(connectionId == 4), "Assertion failed: connectionId == 4");
}

TEST_F(AssertDeath, WritesTheMessageOfTheMessageForm) {
  EXPECT_DEATH(VESK_ASSERT_MSG(1 + 1 == 3, "mount table out of step"),
               "Assertion failed: mount table out of step");
}

TEST_F(AssertDeath, ATrueAssertionEvaluatesItsExpressionOnceAndGoesOn) {
  int evaluations = 0;
  VESK_ASSERT(++evaluations == 1);
  VESK_ASSERT_MSG(++evaluations == 2, "unused");
  EXPECT_EQ(evaluations, 2);
}

}  // namespace
}  // namespace Vesk
