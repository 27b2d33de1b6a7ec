// SPDX-License-Identifier: Apache-2.0
// Takes something from each room through the installed headers, so that it has to be exported and linked.
#include <Kiv/Kiv.h>
#include <Wirl/Wirl.h>

#include <iostream>

int main() {
  Kiv::activityLoop().poll();
  std::cout << "consumer: ok\n";
}
