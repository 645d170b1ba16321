# The programs run natively on x86-64. Debian's g++-12-multilib is installed
# beside the cross compilers, which g++-multilib would displace; it does not
# bring the link to the kernel's headers.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc-12)
set(CMAKE_CXX_COMPILER g++-12)
set(CMAKE_C_FLAGS_INIT "-m32 -isystem /usr/include/x86_64-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "-m32 -isystem /usr/include/x86_64-linux-gnu")
