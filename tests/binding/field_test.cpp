#include <gmock/gmock.h>

#include "clients/GnssRecords.h"
#include "mw/com/cpp_binding/skeleton.h"
#include "tests/support/Fake_runtime.h"

namespace {

using lumo::services::gnss::datatypes::DT_positionsQuality_struct;

TEST(Field, a_value_that_takes_no_bytes_is_a_value) {
  Fake_runtime runtime;
  mw::com::cpp_binding::skeleton::Provision provision{
      .service = "a::S", .instance = "1", .provider = runtime.provide("a::S", "one")};
  mw::com::cpp_binding::skeleton::Field<DT_positionsQuality_struct> field{provision, "quality"};
  const auto get = [&] { return runtime.call("one", "quality", {}); };
  EXPECT_EQ(get().code, tq::com::Return_code::not_ok);
  field.Update({});
  EXPECT_EQ(get().code, tq::com::Return_code::ok);
  EXPECT_TRUE(get().payload.empty());
}

}  // namespace
