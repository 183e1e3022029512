// A parallel program: every rank waits for all others, and the first one says how many they were.
#include <mpi.h>
#include <stdio.h>

int main(int argc, char** argv)
{
    int rank;
    int sum = 0;
    int one = 1;
    MPI_Init(&argc, &argv);
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Barrier(MPI_COMM_WORLD);
    MPI_Reduce(&one, &sum, 1, MPI_INT, MPI_SUM, 0, MPI_COMM_WORLD);
    if (rank == 0)
    {
        printf("%d ranks\n", sum);
    }
    MPI_Finalize();
    return 0;
}
