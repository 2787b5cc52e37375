/* Lists and runs the product's registered self-test units from the command
 * line, for example: platform_unittests --verboseunittest --runallunittests */
#include "unittest/unittest.h"

int main(int argc, char** argv)
{
    return unittest_commandline(argc, argv);
}
