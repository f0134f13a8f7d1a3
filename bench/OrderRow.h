// The ten-field row of the record benchmarks: the values, and the row image that holds them.
#pragma once

#include <cstdint>
#include <string>

#include "LiteralRow.h"

struct OrderValues {
  std::int32_t id = 1234567;
  std::int16_t quantity = 12;
  std::int64_t amount = 1999999;  // scale -2
  std::string name = "Customer name 0042";
  std::int32_t date = 60369;
  std::uint32_t time = 453960000;
  bool active = true;
  double rate = 0.0725;
  std::int32_t day = 60400;
  std::int64_t counter = 77;
};

inline void fillOrderRow(LiteralRow& row, const OrderValues& v) {
  row.addLong("ID", v.id)
      .addShort("QUANTITY", v.quantity)
      .addInt64("AMOUNT", v.amount, -2)
      .addVarchar("NAME", v.name, 4)
      .addTimestamp("CREATED", v.date, v.time)
      .addBoolean("ACTIVE", v.active)
      .addDouble("RATE", v.rate)
      .addNull("NOTE", 3)
      .addDate("DAY", v.day)
      .addInt64("COUNTER", v.counter);
}
