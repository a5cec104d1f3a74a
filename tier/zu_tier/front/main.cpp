#include "zu_tier/front/zu_tier.h"

int main(int argc, char *argv[]) { return zutr_run(argc, argv); }
