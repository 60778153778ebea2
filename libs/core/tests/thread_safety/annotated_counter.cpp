// Compiled only, once as it is and once with each mistake.
#include "annotated_counter.h"

int main()
{
    annotated_counter counter;
    counter.add();
    counter.add_by_hand();
    return counter.try_add() ? 0 : 1;
}
