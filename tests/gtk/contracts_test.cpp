// The contract of the view ports with GTK's views.
#include "gtk/Stage.h"

#include <platform/contract/ViewContract.h>

namespace kva::test {
namespace {

class Display : public testing::Environment {
  void SetUp() override { ASSERT_TRUE(gtk_init_check()) << "these tests need a display"; }
};
[[maybe_unused]] auto* const display = testing::AddGlobalTestEnvironment(new Display);

INSTANTIATE_TYPED_TEST_SUITE_P(Gtk, ViewContract, gtk::test::Stage);

}  // namespace
}  // namespace kva::test
