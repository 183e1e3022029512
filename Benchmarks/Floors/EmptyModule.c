// Loaded by BenchLoadModule: a module in which there is nothing.
const int g_emptyModule = 1;
