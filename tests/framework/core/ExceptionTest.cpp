#include "framework/core/Exception.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

#include "framework/core/Assert.h"
#include "tests/support/FailureText.h"

namespace Vesk {
namespace {

using testsupport::failureText;

static_assert(std::is_base_of_v<std::runtime_error, Exception>);
static_assert(std::is_base_of_v<Exception, ReinstantiationException> &&
              std::is_base_of_v<Exception, NullParameterException> &&
              std::is_base_of_v<Exception, RangeException> &&
              std::is_base_of_v<Exception, NameInUseException>);
// A handler for one failure must not catch another.
static_assert(!std::is_base_of_v<ReinstantiationException, NullParameterException> &&
              !std::is_base_of_v<ReinstantiationException, NameInUseException> &&
              !std::is_base_of_v<NullParameterException, ReinstantiationException> &&
              !std::is_base_of_v<NameInUseException, RangeException> &&
              !std::is_base_of_v<RangeException, NameInUseException>);

// Callers compare these texts byte for byte. A helper throwing another type fails the test
// with that exception uncaught.
TEST(Exception, EachHelperThrowsItsTypeWithItsExactText) {
  std::string const entity =
      "Reinstantiating the entity with fullName /a/b where constructor parameter attribute "
      "'plovType' has a different value of x than the current value of y";
  EXPECT_EQ(failureText<ReinstantiationException>(
                [] { throwEntityReinstantiation("/a/b", "plovType", "x", "y"); }),
            entity);
  EXPECT_EQ(failureText<NameInUseException>(
                [] { throwNameInUseReinstantiation("/a/b", "plovType", "x", "y"); }),
            entity + " not allowed");
  EXPECT_EQ(
      failureText<ReinstantiationException>([] { throwPtrInterfaceReinstantiation("oobStatus"); }),
      "Reinstantiating the pointer interface where constructor parameter attribute _oobStatus "
      "has a different value of");
  // The trailing double quote belongs to the text.
  EXPECT_EQ(failureText<NullParameterException>([] {
              throwNullParameter("serviceStatus", "Controller::ConnectionServiceStatusDirSm");
            }),
            "null _serviceStatus parameter to mutator for "
            "Controller::ConnectionServiceStatusDirSm::serviceStatus not allowed\"");
  EXPECT_EQ(failureText<RangeException>([] { throwRangeException("index 9 out of range"); }),
            "index 9 out of range");
  EXPECT_EQ(failureText<NameInUseException>([] { throwNameInUseException("name x in use"); }),
            "name x in use");
}

void* mountSm(int) { return nullptr; }

// Assertions stop the process in every build, naming the expression as written.
TEST(AssertDeathTest, AFalseAssertionWritesItsTextAndATrueOneEvaluatesOnce) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  int evaluations = 0;
  VESK_ASSERT(++evaluations == 1);
  VESK_ASSERT_MSG(++evaluations == 2, "unused");
  EXPECT_EQ(evaluations, 2);

  int connectionId = 3;
  // clang-format off
  EXPECT_DEATH(VESK_ASSERT(mountSm( connectionId )),
               "Assertion failed: mountSm\\( connectionId \\)");
  // clang-format on
  EXPECT_DEATH(VESK_ASSERT(connectionId == 4), "Assertion failed: connectionId == 4");
  EXPECT_DEATH(VESK_ASSERT_MSG(1 + 1 == 3, "mount table out of step"),
               "Assertion failed: mount table out of step");
}

}  // namespace
}  // namespace Vesk
