// A plugin that says from which place it came.
#ifndef ZORV_TEST_PLACE
#define ZORV_TEST_PLACE "nowhere"
#endif

const char* PluginPlace(void);

const char* PluginPlace(void)
{
    return ZORV_TEST_PLACE;
}
