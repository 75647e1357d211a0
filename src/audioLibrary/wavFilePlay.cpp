// wavFilePlay
