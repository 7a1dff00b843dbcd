// A tool that only prints the file "report" of the current directory.

#include <fcntl.h>
#include <unistd.h>

int main()
{
    static char buffer[65536];
    const int file = open("report", O_RDONLY);
    ssize_t count = 0;
    while ((count = read(file, buffer, sizeof buffer)) > 0 &&
           write(STDOUT_FILENO, buffer, static_cast<size_t>(count)) == count)
        ;
}
