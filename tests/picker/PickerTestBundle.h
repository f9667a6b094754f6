// The main bundle folder of the picker test binary (see picker_test_main.cpp).
#pragma once

#include <QString>

namespace lumaro::test {
QString pickerMainBundle();
}  // namespace lumaro::test
