#include "forwarders/LongWait.h"

LongWait *LongWait::getInstance()
{
    static LongWait instance;
    return &instance;
}
