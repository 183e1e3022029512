// The versions that Members.def names, as the assembler wants them.
#pragma once

#define ZORV_VERSION_2_2_5 "GLIBC_2.2.5"
#define ZORV_VERSION_2_3_2 "GLIBC_2.3.2"
#define ZORV_VERSION_2_3_4 "GLIBC_2.3.4"
#define ZORV_VERSION_2_10 "GLIBC_2.10"
#define ZORV_VERSION_2_12 "GLIBC_2.12"
#define ZORV_VERSION_2_17 "GLIBC_2.17"
#define ZORV_VERSION_2_24 "GLIBC_2.24"
#define ZORV_VERSION_2_34 "GLIBC_2.34"
