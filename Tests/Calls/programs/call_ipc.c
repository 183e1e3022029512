// Messages, semaphores and shared memory, of System V and of POSIX.
#include "every_call.h"
#include <mqueue.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>

struct Message
{
    long m_type;
    char m_text[16];
};

static void CallMessageQueue(void)
{
    struct Message message = {3, "three"};
    struct msqid_ds state;
    int queue = CALL_KIND(msgget, IPC_PRIVATE, 0600);
    CALL(msgget, 0x5a5a1234, 0);
    CALL(msgsnd, queue, &message, 6, 0);
    CALL(msgsnd, -1, &message, 6, 0);
    memset(&message, 0, sizeof(message));
    CALL(msgrcv, queue, &message, sizeof(message.m_text), 4, IPC_NOWAIT);
    CALL(msgrcv, queue, &message, sizeof(message.m_text), 3, 0);
    Note("  message %ld %s\n", message.m_type, message.m_text);
    CALL(msgctl, queue, IPC_STAT, &state);
    Note("  left %lu\n", (unsigned long)state.msg_qnum);
    CALL(msgctl, queue, IPC_RMID, NULL);
    CALL(msgctl, queue, IPC_STAT, &state);
}

// The optional word: none, an int, and a pointer.
static void CallSemaphores(void)
{
    struct sembuf up = {0, 2, 0};
    struct sembuf down = {0, -3, IPC_NOWAIT};
    unsigned short values[2] = {7, 8};
    struct timespec soon = {0, 1};
    int set = CALL_KIND(semget, IPC_PRIVATE, 2, 0600);
    CALL(semget, IPC_PRIVATE, -1, 0600);
    CALL(semctl, set, 0, SETVAL, 1);
    CALL(semop, set, &up, 1);
    CALL(semctl, set, 0, GETVAL);
    CALL(semtimedop, set, &down, 1, &soon);
    CALL(semop, set, &down, 1);
    down.sem_flg = 0;
    CALL(semtimedop, set, &down, 1, &soon);
    CALL(semctl, set, 0, SETALL, values);
    CALL(semctl, set, 1, GETVAL);
    CALL(semctl, set, 9, GETVAL);
    CALL(semctl, set, 0, IPC_RMID);
    CALL(semop, set, &up, 1);
}

static void CallSharedMemory(void)
{
    struct shmid_ds state;
    int block = CALL_KIND(shmget, IPC_PRIVATE, 4096, 0600);
    CALL(shmget, IPC_PRIVATE, 0, 0600);
    char* pMemory = CALL_KIND(shmat, block, NULL, 0);
    CALL_KIND(shmat, block, (void*)1, 0);
    strcpy(pMemory, "shared");
    CALL(shmctl, block, IPC_STAT, &state);
    Note("  %s, attached %lu\n", pMemory, (unsigned long)state.shm_nattch);
    CALL(shmdt, pMemory);
    CALL(shmdt, pMemory);
    CALL(shmctl, block, IPC_RMID, NULL);
    CALL(shmctl, block, IPC_STAT, &state);
}

static void CallPosixQueue(void)
{
    char name[64];
    char text[32] = "";
    unsigned int priority = 0;
    struct mq_attr attributes = {0, 4, sizeof(text), 0};
    struct mq_attr wanted = {.mq_flags = O_NONBLOCK};
    struct timespec soon = {1, 0};
    snprintf(name, sizeof(name), "/every_call-%d", getpid());
    mqd_t queue = mq_open(name, O_RDWR | O_CREAT, 0600, &attributes);
    Note("mq_open = %d\n", queue);
    CALL(mq_send, queue, "low", 4, 1);
    CALL(mq_send, queue, text, 99, 1);
    CALL(mq_timedsend, queue, "high", 5, 9, &soon);
    CALL(mq_timedsend, -1, "high", 5, 9, &soon);
    CALL(mq_getattr, queue, &attributes);
    CALL(mq_getattr, -1, &attributes);
    Note("  waiting %ld\n", attributes.mq_curmsgs);
    CALL(mq_receive, queue, text, sizeof(text), &priority);
    Note("  %s, priority %u\n", text, priority);
    CALL(mq_receive, queue, text, 1, &priority);
    CALL(mq_timedreceive, queue, text, sizeof(text), &priority, &soon);
    Note("  %s, priority %u\n", text, priority);
    CALL(mq_timedreceive, queue, text, sizeof(text), &priority, &soon);
    CALL(mq_setattr, queue, &wanted, &attributes);
    CALL(mq_setattr, -1, &wanted, &attributes);
    CALL(mq_receive, queue, text, sizeof(text), NULL);
    CALL(mq_notify, queue, &(struct sigevent){.sigev_notify = SIGEV_NONE});
    CALL(mq_notify, queue, &(struct sigevent){.sigev_notify = SIGEV_NONE});
    CALL(mq_close, queue);
    CALL(mq_close, -1);
    CALL(mq_unlink, name);
    CALL(mq_unlink, name);
}

void CallMessages(void)
{
    CallMessageQueue();
    CallSemaphores();
    CallSharedMemory();
    CallPosixQueue();
}
