// The contract of the view ports with GTK's views.
#include "gtk/Stage.h"

#include <platform/contract/ViewContract.h>

namespace kva::test {
namespace {

INSTANTIATE_TYPED_TEST_SUITE_P(Gtk, ViewContract, gtk::test::Stage);

}  // namespace
}  // namespace kva::test
