// NAT. For now only the executor's list of return addresses, which stays empty.
#pragma once

[[nodiscard]] int _lb_nat_init(); // the list's result
int _lb_nat_exit();
