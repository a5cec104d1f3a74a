#include "zu_tier/zu_tier.h"

int main(int argc, char *argv[])
{
    return zutr_run(argc, argv);
}
